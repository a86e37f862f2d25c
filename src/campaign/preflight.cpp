#include "campaign/preflight.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "campaign/checker.h"
#include "campaign/child_process.h"
#include "campaign/device_checks.h"
#include "campaign/scratch_store.h"
#include "platform/unique_fd.h"

namespace {

// What qvexfat-test prints first when run without arguments.
constexpr const char* kToolUsage = "[-d --device] <path> [-c --corrupt] <description-of-corruption> or";
constexpr const char* kIdentification = "@(#)qvexfat-test ";

bool Executable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

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

std::string Sizes(CampaignOptions& options, const std::vector<const Row*>& rows) {
  const Row* largest = nullptr;
  for (const Row* row : rows)
    if (!largest || row->volume_bytes > largest->volume_bytes) largest = row;
  uint64_t available = options.size;
  if (!options.device.empty()) {
    UniqueFd fd(open(options.device.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen() || ioctl(fd.Get(), BLKGETSIZE64, &available) != 0)
      return options.device + ": its size cannot be read";
  } else if (available == 0) {
    options.size = available = largest ? largest->volume_bytes : 0;
  }
  if (largest && largest->volume_bytes > available)
    return "row " + largest->name + " needs a volume of " + FormatSize(largest->volume_bytes) + ", and " +
           (options.device.empty() ? "the image" : options.device) + " holds " + FormatSize(available);
  return "";
}

}  // namespace

std::string Preflight(CampaignOptions& options, const std::vector<const Row*>& rows, Stack& stack) {
  if (!options.device.empty() && !options.yes)
    return "--device destroys everything on " + options.device + ": confirm with --yes";
  if (geteuid() != 0) return "must run as root: it sets up loop devices and mounts volumes";

  if (options.tool.empty()) options.tool = DefaultTool();
  if (options.tool.empty()) return "qvexfat-test is neither beside qvexfat-campaign nor on PATH (--tool)";
  std::vector<std::string> programs{"mkfs.exfat", options.checker, options.tool};
  if (options.driver == Driver::kFuse) programs.push_back("mount.exfat-fuse");
  for (const std::string& program : programs)
    if (Find(program).empty()) return program + ": no such program" + (program.find('/') == std::string::npos ? " on PATH" : "");
  const ChildOutcome usage = RunProgram({options.tool}, std::chrono::seconds(60));
  if (usage.exit_code != 1 || usage.output.find("Usage: ") == std::string::npos ||
      usage.output.find(kToolUsage) == std::string::npos)
    return options.tool + " is not qvexfat-test: run without arguments, it does not print qvexfat-test's usage";

  if (options.driver == Driver::kKernel && !KernelHas("exfat"))
    return "the kernel has no exfat driver loaded (not in /proc/filesystems): modprobe exfat, or --driver fuse";
  if (options.driver == Driver::kFuse && (access("/dev/fuse", R_OK | W_OK) != 0 || !KernelHas("fuseblk")))
    return "FUSE is not available: no /dev/fuse, or no fuseblk in /proc/filesystems";
  if (access("/dev/loop-control", R_OK | W_OK) != 0) return "/dev/loop-control is missing: no loop device support";
  if (access("/dev/kmsg", R_OK) != 0) return "/dev/kmsg cannot be read: the kernel's reports would go unseen";

  if (!options.device.empty()) {
    const std::string refusal = DeviceRefusal(options.device);
    if (!refusal.empty()) return refusal;
  } else if (access(options.image.c_str(), F_OK) == 0) {
    return options.image + " exists: the campaign makes its image itself";
  }
  const std::string too_small = Sizes(options, rows);
  if (!too_small.empty()) return too_small;

  utsname names{};
  uname(&names);
  stack.kernel = names.release;
  stack.checker = CheckerVersion(options.checker);
  stack.tool = ToolVersion(options.tool);
  if (options.driver == Driver::kFuse) {
    const std::vector<std::string> lines = RunProgram({"mount.exfat-fuse", "-V"}, std::chrono::seconds(60)).Lines();
    stack.fuse = lines.empty() ? "unknown version" : lines.front();
  }
  return "";
}
