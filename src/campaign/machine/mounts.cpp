#include "campaign/machine/mounts.h"

#include <string.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "campaign/machine/error_name.h"
#include "campaign/machine/interrupt.h"
#include "campaign/machine/leftovers.h"

namespace {

using std::chrono::seconds;

// How long a FUSE daemon may take to go once its volume is unmounted.
constexpr seconds kDaemonLimit{30};
constexpr const char* kFuseBanner = "FUSE exfat ";

// What crosses the fork from a mount call.
struct MountCall {
  int error;  // errno of a refused mount, or 0
  bool read_only;
};

bool ReadOnly(const std::string& directory) {
  struct statvfs info {};
  if (statvfs(directory.c_str(), &info) != 0) throw std::runtime_error("statvfs: " + ErrorName(errno));
  return (info.f_flag & ST_RDONLY) != 0;
}

// exfat-fuse's own word for a refusal, its last error: ": bad cluster 0
// while reading root directory.", or "".
std::string HelpersReason(const std::vector<std::string>& driver_lines) {
  const std::string error = "mount.exfat-fuse: ERROR: ";
  for (auto line = driver_lines.rbegin(); line != driver_lines.rend(); ++line)
    if (line->rfind(error, 0) == 0) return ": " + line->substr(error.size());
  return "";
}

MountAttempt TryMount(Driver driver, const std::string& device, const std::string& directory, seconds limit) {
  MountAttempt attempt;
  if (driver == Driver::kKernel) {
    const auto run = RunIsolated<MountCall>(limit, [&] {
      if (mount(device.c_str(), directory.c_str(), "exfat", 0, nullptr) != 0) return MountCall{errno, false};
      return MountCall{0, ReadOnly(directory)};
    });
    attempt.helper = run.end;
    if (run.result && run.result->error != 0) {
      attempt.refusal = ErrorName(run.result->error);
      return attempt;
    }
    if (run.result) {
      attempt.volume = std::make_unique<MountedVolume>(directory, std::vector<pid_t>{});
      attempt.read_only = run.result->read_only;
      return attempt;
    }
  } else {
    const ProgramRun run = RunProgram({"mount.exfat-fuse", device, directory}, limit);
    attempt.helper = run.end;
    for (const std::string& line : run.Lines())  // all but the banner of every start
      if (line.rfind(kFuseBanner, 0) != 0) attempt.driver_lines.push_back("mount.exfat-fuse: " + line);
    // The daemon it started is this process's now, as a subreaper.
    std::vector<pid_t> daemons = AdoptedChildren();
    if (run.end.Succeeded()) {
      attempt.volume = std::make_unique<MountedVolume>(directory, std::move(daemons));
      const auto mode = RunIsolated<bool>(limit, [&] { return ReadOnly(directory); });
      attempt.read_only = mode.result.value_or(false);
      return attempt;
    }
    for (pid_t daemon : daemons) AwaitChild(daemon, seconds(0));
  }
  // Refused, or the call did not end: whatever came about after all is undone.
  umount2(directory.c_str(), MNT_DETACH);
  attempt.refusal = attempt.helper.Describe() + HelpersReason(attempt.driver_lines);
  return attempt;
}

}  // namespace

MountedVolume::~MountedVolume() {
  if (!m_mounted) return;
  if (umount2(m_directory.c_str(), MNT_DETACH) == 0) NoteUndone("unmounted " + m_directory);
  else NoteLeft(m_directory + " stays mounted (" + strerror(errno) + ")");
  for (pid_t daemon : m_daemons) AwaitChild(daemon, seconds(5));
}

bool MountedVolume::IsReadOnly(seconds limit) const {
  const auto run = RunIsolated<bool>(limit, [this] { return ReadOnly(m_directory); });
  return run.result.value_or(false);
}

std::vector<Ending> MountedVolume::DaemonsEnded() {
  std::vector<Ending> ended;
  for (auto daemon = m_daemons.begin(); daemon != m_daemons.end();) {
    if (const std::optional<Ending> end = ChildEnded(*daemon)) {
      ended.push_back(AwaitChild(*daemon, seconds(0)));
      daemon = m_daemons.erase(daemon);
    } else {
      ++daemon;
    }
  }
  return ended;
}

std::string MountedVolume::Unmount(seconds limit, std::vector<Ending>& daemons) {
  struct Call {
    int error;
  };
  const auto run = RunIsolated<Call>(limit, [this] {
    for (int attempt = 0; attempt < 25; ++attempt) {
      if (umount2(m_directory.c_str(), 0) == 0) return Call{0};
      if (errno != EBUSY) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const Call failed{errno};
    umount2(m_directory.c_str(), MNT_DETACH);
    return failed;
  });
  m_mounted = false;
  std::string trouble;
  if (!run.result) {
    umount2(m_directory.c_str(), MNT_DETACH);
    trouble = "unmount " + run.end.Describe();
  } else if (run.result->error != 0) {
    trouble = "unmount failed (" + ErrorName(run.result->error) + "), detached lazily";
  }
  for (pid_t daemon : m_daemons) {
    const Ending end = AwaitChild(daemon, kDaemonLimit);
    if (end.TimedOut()) trouble += std::string(trouble.empty() ? "" : "; ") + "the FUSE daemon did not end and was killed";
    daemons.push_back(end);
  }
  m_daemons.clear();
  return trouble;
}

std::string MountAttempt::Describe() const {
  if (helper.TimedOut()) return helper.Describe();
  if (!volume) return "refused (" + refusal + ")";
  return read_only ? "taken read-only" : "taken";
}

MountAttempt Mount(Driver driver, const std::string& device, const std::string& directory, seconds limit) {
  try {
    return TryMount(driver, device, directory, limit);
  } catch (const Interrupted&) {
    // The helper may have mounted before it was stopped.
    if (umount2(directory.c_str(), MNT_DETACH) == 0) NoteUndone("unmounted " + directory);
    for (pid_t daemon : AdoptedChildren()) AwaitChild(daemon, seconds(5));
    throw;
  }
}
