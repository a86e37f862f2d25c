#include "campaign/mounting.h"

#include <string.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "campaign/child_process.h"

namespace {

using std::chrono::seconds;

constexpr seconds kMountLimit{300};
constexpr seconds kUnmountLimit{300};
constexpr seconds kDaemonLimit{30};
constexpr const char* kFuseBanner = "FUSE exfat ";

std::string ErrorName(int error) { return strerrorname_np(error) ? strerrorname_np(error) : std::to_string(error); }

// In a child: whether the mounted volume is read-only.
std::string Mode(const std::string& directory) {
  struct statvfs info {};
  if (statvfs(directory.c_str(), &info) != 0) return "error " + ErrorName(errno);
  return (info.f_flag & ST_RDONLY) != 0 ? "ro" : "rw";
}

}  // namespace

MountedVolume::~MountedVolume() {
  if (!m_mounted) return;
  umount2(m_directory.c_str(), MNT_DETACH);
  if (m_driver == Driver::kFuse) ReapStrays(seconds(5));
}

bool MountedVolume::IsReadOnly() const {
  return RunIsolated(kMountLimit, [this] { return Mode(m_directory); }).output == "ro";
}

std::string MountedVolume::Unmount() {
  const ChildOutcome outcome = RunIsolated(kUnmountLimit, [this]() -> std::string {
    for (int attempt = 0; attempt < 25; ++attempt) {
      if (umount2(m_directory.c_str(), 0) == 0) return "";
      if (errno != EBUSY) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const int error = errno;
    umount2(m_directory.c_str(), MNT_DETACH);
    return "unmount failed (" + ErrorName(error) + "), detached lazily";
  });
  m_mounted = false;
  std::string trouble = outcome.Succeeded() ? outcome.output : "unmount " + outcome.Describe();
  if (!outcome.Succeeded()) umount2(m_directory.c_str(), MNT_DETACH);
  if (m_driver == Driver::kFuse && !ReapStrays(kDaemonLimit))
    trouble += std::string(trouble.empty() ? "" : "; ") + "the FUSE daemon did not end and was killed";
  return trouble;
}

std::string MountAttempt::Describe() const {
  if (timed_out) return "timed out";
  if (!volume) return "refused (" + refusal + ")";
  return read_only ? "taken read-only" : "taken";
}

MountAttempt Mount(Driver driver, const std::string& device, const std::string& directory) {
  MountAttempt attempt;
  ChildOutcome outcome;
  if (driver == Driver::kKernel) {
    outcome = RunIsolated(kMountLimit, [&]() -> std::string {
      if (mount(device.c_str(), directory.c_str(), "exfat", 0, nullptr) != 0) return "refused " + ErrorName(errno);
      return Mode(directory);
    });
  } else {
    outcome = RunProgram({"mount.exfat-fuse", device, directory}, kMountLimit);
    for (const std::string& line : outcome.Lines())  // all but the banner of every start
      if (line.rfind(kFuseBanner, 0) != 0) attempt.driver_lines.push_back("mount.exfat-fuse: " + line);
  }
  if (!outcome.Succeeded()) {
    // Whatever may have come about after all is undone.
    umount2(directory.c_str(), MNT_DETACH);
    if (driver == Driver::kFuse) ReapStrays(seconds(5));
    attempt.timed_out = outcome.timed_out;
    attempt.refusal = outcome.Describe();
    return attempt;
  }
  if (outcome.output.rfind("refused ", 0) == 0) {
    attempt.refusal = outcome.output.substr(8);
    return attempt;
  }
  // Mounted: from here on it is undone, however the row ends.
  attempt.volume = std::make_unique<MountedVolume>(driver, directory);
  if (driver == Driver::kFuse) outcome = RunIsolated(kMountLimit, [&] { return Mode(directory); });
  attempt.read_only = outcome.output == "ro";
  return attempt;
}
