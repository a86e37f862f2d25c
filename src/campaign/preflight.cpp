#include "campaign/preflight.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "campaign/machine/child.h"
#include "campaign/machine/device_checks.h"
#include "campaign/machine/device_mapper.h"
#include "campaign/machine/scratch_store.h"
#include "campaign/trial/checker.h"
#include "platform/unique_fd.h"

namespace {

// What qvexfat-test prints first when run without arguments.
constexpr const char* kToolUsage = "[-d --device] <path> [-c --corrupt] <description-of-corruption> or";
constexpr const char* kIdentification = "@(#)qvexfat-test ";
constexpr std::chrono::seconds kAnswerLimit{10};

// A regular file this process may run: a directory has X_OK too.
bool Executable(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The program as execvp would find it, or "".
std::string Find(const std::string& name) {
  if (name.find('/') != std::string::npos) return Executable(name) ? name : "";
  const char* path = getenv("PATH");
  std::string directories = path ? path : "/bin:/usr/bin";
  for (size_t start = 0; start <= directories.size();) {
    size_t end = directories.find(':', start);
    if (end == std::string::npos) end = directories.size();
    const std::string candidate = (end == start ? "." : directories.substr(start, end - start)) + "/" + name;
    if (Executable(candidate)) return candidate;
    start = end + 1;
  }
  return "";
}

// Why a program named on the command line cannot be run, or "".
std::string NotRunnable(const std::string& option, const std::string& program) {
  if (program.empty()) return option + " names no program";
  if (!Find(program).empty()) return "";
  struct stat info {};
  if (program.find('/') == std::string::npos) return option + " " + program + ": no such program on PATH";
  if (stat(program.c_str(), &info) != 0) return option + " " + program + ": no such file";
  if (!S_ISREG(info.st_mode)) return option + " " + program + ": not a program (not a regular file)";
  return option + " " + program + ": not executable";
}

// qvexfat-test in the campaign's own directory, else on PATH.
std::string DefaultTool() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    const std::string campaign(self, static_cast<size_t>(n));
    const std::string beside = campaign.substr(0, campaign.rfind('/') + 1) + "qvexfat-test";
    if (Executable(beside)) return beside;
  }
  return Find("qvexfat-test");
}

// The version the tool's file carries; a wrapper script carries none.
std::string ToolVersion(const std::string& tool) {
  std::ifstream file(tool, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const size_t at = bytes.find(kIdentification);
  if (at == std::string::npos) return "qvexfat-test, version unknown (" + tool + ")";
  return bytes.c_str() + at + 4;
}

bool KernelHas(const std::string& filesystem) {
  std::ifstream filesystems("/proc/filesystems");
  for (std::string line; std::getline(filesystems, line);)
    if (line.substr(line.find('\t') + 1) == filesystem) return true;
  return false;
}

std::string Room(const std::string& image, uint64_t size);

// Two of the paths the campaign writes naming one file: the report would
// be written into the volumes, or the other way round.
std::string SamePaths(const CampaignOptions& options) {
  if (options.markdown.empty()) return "";
  const std::string store = options.image.empty() ? options.device : options.image;
  std::error_code markdown_error, store_error;
  const std::filesystem::path markdown = std::filesystem::weakly_canonical(options.markdown, markdown_error);
  const bool same = markdown == std::filesystem::weakly_canonical(store, store_error) && !markdown_error && !store_error;
  return same ? "--markdown names " + store + ", where the campaign's volumes are to be" : "";
}

std::string Sizes(CampaignOptions& options, const std::vector<const Row*>& rows) {
  // An image the user brought that does not fit is refused in its own row;
  // the image made by default holds the largest of them too.
  const Row* largest = nullptr;
  uint64_t most = 0;
  for (const Row* row : rows) {
    most = std::max(most, StoreBytes(*row));
    if (row->image.empty() && (!largest || StoreBytes(*row) > StoreBytes(*largest))) largest = row;
  }
  uint64_t available = options.size;
  if (!options.device.empty()) {
    UniqueFd fd(open(options.device.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen() || ioctl(fd.Get(), BLKGETSIZE64, &available) != 0)
      return options.device + ": its size cannot be read";
  } else if (available == 0) {
    options.size = available = most;
  }
  if (largest && StoreBytes(*largest) > available)
    return "row " + largest->name + " needs a volume of " + FormatSize(largest->volume_bytes) +
           (largest->log_bytes ? " and a log of " + FormatSize(largest->log_bytes) : "") + ", and " +
           (options.device.empty() ? "the image" : options.device) + " holds " + FormatSize(available);
  return options.device.empty() ? Room(options.image, options.size) : "";
}

// Whether the filesystem that is to hold the image has room for all of it:
// a sparse image that runs out of room under a row fails the row's writes.
std::string Room(const std::string& image, uint64_t size) {
  const size_t slash = image.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : image.substr(0, slash);
  struct statvfs info {};
  if (statvfs(directory.c_str(), &info) != 0) return directory + ": " + strerror(errno);
  const uint64_t free = uint64_t{info.f_bavail} * info.f_frsize;
  if (free >= size) return "";
  return "the filesystem holding " + directory + " has " + std::to_string(free >> 20) + " MiB free, and the image needs " +
         FormatSize(size);
}

}  // namespace

Refusal Preflight(CampaignOptions& options, const std::vector<const Row*>& rows, Stack& stack) {
  const auto usage = [](const std::string& reason) { return Refusal{reason, false}; };
  const auto skip = [](const std::string& reason) { return Refusal{reason, true}; };
  if (std::string clash = SamePaths(options); !clash.empty()) return usage(clash);
  if (!options.device.empty() && access(options.device.c_str(), F_OK) != 0)
    return usage(options.device + ": " + strerror(errno));
  if (!options.device.empty() && !options.yes)
    return usage("--device destroys everything on " + options.device + ": confirm with --yes");
  if (!options.tool.empty())
    if (std::string why = NotRunnable("--tool", options.tool); !why.empty()) return usage(why);
  if (options.checker_given)
    if (std::string why = NotRunnable("--fsck", options.checker); !why.empty()) return usage(why);

  if (geteuid() != 0) return skip("must run as root: it sets up loop devices and mounts volumes");
  if (options.tool.empty()) options.tool = DefaultTool();
  if (options.tool.empty()) return skip("qvexfat-test is neither beside qvexfat-campaign nor on PATH (--tool)");
  std::vector<std::string> needed{"mkfs.exfat", options.checker};
  if (options.driver == Driver::kFuse) needed.push_back("mount.exfat-fuse");
  for (const std::string& program : needed)
    if (Find(program).empty()) return skip(program + ": no such program on PATH");
  if (options.driver == Driver::kKernel && !KernelHas("exfat"))
    return skip("the kernel has no exfat driver loaded (not in /proc/filesystems): modprobe exfat, or --driver fuse");
  if (options.driver == Driver::kFuse && (access("/dev/fuse", R_OK | W_OK) != 0 || !KernelHas("fuseblk")))
    return skip("FUSE is not available: no /dev/fuse, or no fuseblk in /proc/filesystems");
  if (access("/dev/loop-control", R_OK | W_OK) != 0) return skip("/dev/loop-control is missing: no loop device support");
  if (access("/dev/kmsg", R_OK) != 0) return skip("/dev/kmsg cannot be read: the kernel's reports would go unseen");
  // Power-cut rows among others are skipped in their rows.
  if (!rows.empty() && std::all_of(rows.begin(), rows.end(), [](const Row* row) { return !row->power_cut.empty(); }))
    if (std::string missing = DmTargetMissing("log-writes"); !missing.empty()) return skip(missing);

  // A program that does not answer these within its time is no program to try.
  // fsck.exfat -V prints its version and exits 16, as for any usage.
  const ProgramRun version = RunProgram({options.checker, "-V"}, kAnswerLimit);
  if (version.end.kind != Ending::Kind::kExited || version.end.code >= 126 || version.output.empty())
    return usage(options.checker + " does not answer -V with its version: " + version.end.Describe() +
                 (version.output.empty() ? ", nothing printed" : ""));
  const ProgramRun tool = RunProgram({options.tool}, kAnswerLimit);
  if (!tool.end.Exited(1) || tool.output.find("Usage: ") == std::string::npos ||
      tool.output.find(kToolUsage) == std::string::npos)
    return usage(options.tool + " is not qvexfat-test: run without arguments, it does not print qvexfat-test's usage");
  if (!options.device.empty()) {
    if (std::string refusal = DeviceRefusal(options.device); !refusal.empty()) return usage(refusal);
    if (!options.whole_disk)
      if (std::string refusal = WholeDiskRefusal(options.device); !refusal.empty()) return usage(refusal);
  } else if (access(options.image.c_str(), F_OK) == 0) {
    return usage(options.image + " exists: the campaign makes its image itself");
  } else if (options.keep) {
    for (const Row* row : rows)
      if (const std::string kept = KeptVolumePath(options.image, *row); row->damage && access(kept.c_str(), F_OK) == 0)
        return usage(kept + " exists: --keep keeps the damaged volume of row " + row->name + " there");
  }
  if (std::string too_small = Sizes(options, rows); !too_small.empty()) return usage(too_small);

  utsname names{};
  uname(&names);
  stack.kernel = names.release;
  stack.checker = CheckerVersion(options.checker);
  stack.tool = ToolVersion(options.tool);
  if (options.driver == Driver::kFuse) {
    const std::vector<std::string> lines = RunProgram({"mount.exfat-fuse", "-V"}, std::chrono::seconds(60)).Lines();
    stack.fuse = lines.empty() ? "unknown version" : lines.front();
  }
  return {};
}
