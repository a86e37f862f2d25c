#include "campaign/power/recording.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include <fmt/format.h>

#include "campaign/machine/device_mapper.h"
#include "campaign/machine/mounts.h"
#include "campaign/machine/scratch_store.h"
#include "campaign/machine/volume_copy.h"
#include "campaign/trial/make_step.h"
#include "platform/errno_exception.h"

namespace {

constexpr std::chrono::seconds kWorkloadLimit{600};
constexpr size_t kCopyBytes = 1 << 20;
// dm-log-writes takes a log whose first block is not its super block as
// empty; a log an earlier run left would be taken up where it ended.
constexpr size_t kLogHeadBytes = 4096;

void ZeroHead(const std::string& device) {
  const UniqueFd fd(open(device.c_str(), O_WRONLY | O_CLOEXEC));
  const std::vector<char> zeros(kLogHeadBytes);
  if (!fd.IsOpen() || pwrite(fd.Get(), zeros.data(), zeros.size(), 0) != static_cast<ssize_t>(zeros.size()) ||
      fsync(fd.Get()) != 0)
    throw ErrnoException(errno ? errno : EIO, device);
}

// The log's bytes into memory.
UniqueFd CopyToMemory(const std::string& device, uint64_t bytes) {
  const UniqueFd from(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  if (!from.IsOpen()) throw ErrnoException(errno, device);
  UniqueFd to(memfd_create("write-log", MFD_CLOEXEC));
  if (!to.IsOpen()) throw ErrnoException(errno, "memfd_create");
  std::vector<char> buffer(kCopyBytes);
  for (uint64_t at = 0; at < bytes;) {
    const ssize_t n = pread(from.Get(), buffer.data(), std::min<uint64_t>(buffer.size(), bytes - at), static_cast<off_t>(at));
    if (n <= 0) throw ErrnoException(n < 0 ? errno : EIO, device);
    if (pwrite(to.Get(), buffer.data(), static_cast<size_t>(n), static_cast<off_t>(at)) != n)
      throw ErrnoException(errno, "the log's copy");
    at += static_cast<uint64_t>(n);
  }
  return to;
}

std::string Summary(const WriteLog& log) {
  size_t flushes = 0, fua = 0, marks = 0;
  for (const LogEntry& entry : log.entries) {
    flushes += (entry.flags & kLogFlush) != 0;
    fua += (entry.flags & kLogFua) != 0;
    marks += entry.IsMark();
  }
  return fmt::format("dm-log-writes, {} entries, {} flushes, {} FUA, {} marks", log.entries.size(), flushes, fua, marks);
}

// A copy beside the image, for --replay to take up again, or a look.
void Keep(const std::string& from, uint64_t bytes, const std::string& path, StepObservation& step) {
  try {
    CopyVolume(from, bytes, path);
    step.lines.push_back("kept: " + path);
  } catch (const std::exception& e) {
    step.lines.push_back("kept: not " + path + ", the copy failed: " + e.what());
  }
}

// The workload on the logged volume; what stops the rows, or "".
std::string RunLogged(const Context& context, const Workload& workload, const DmDevice& logger, StepObservation& step) {
  MountAttempt mount = Mount(context.driver, logger.Path(), context.mount_point, context.limits.mount);
  step.runs.push_back({Purpose::kSetUp, "mounting the logged volume", mount.helper});
  step.lines.insert(step.lines.end(), mount.driver_lines.begin(), mount.driver_lines.end());
  if (!mount.volume || mount.read_only) return "the driver did not take the logged volume: " + mount.Describe();
  const auto ran = RunIsolated<bool>(kWorkloadLimit, [&] {
    workload.Run(context.mount_point, [&logger](const std::string& label) { logger.Message("mark " + label); });
    return true;
  });
  step.runs.push_back({Purpose::kSetUp, "the workload", ran.end});
  std::vector<Ending> daemons;
  const std::string unmount = mount.volume->Unmount(context.limits.mount, daemons);
  step.daemons.insert(step.daemons.end(), daemons.begin(), daemons.end());
  if (!ran.result) return "the workload failed: " + (ran.output.empty() ? ran.end.Describe() : ran.output);
  if (!unmount.empty()) return "the logged volume: " + unmount;
  logger.Message(std::string("mark ") + Workload::kUnmounted);
  return "";
}

}  // namespace

std::string RecordWorkload(const Context& context, const Row& row, const KnownTree& tree, const Workload& workload,
                           VolumeUnderTest& volume, StepObservation& step, Recording& recording) {
  if (const std::string stop = MakeTreeVolume(context, row, tree, volume, step); !stop.empty()) return stop;
  try {
    recording.base.Capture(volume.Device(), row.volume_bytes);
    if (context.keep_damaged) Keep(volume.Device(), row.volume_bytes, context.store.Path() + ".power-cut.base.img", step);
    const std::unique_ptr<LoopDevice> log = context.store.Region(row.volume_bytes, kWriteLogBytes);
    ZeroHead(log->Path());
    std::string stop;
    {
      DmDevice logger(CampaignDmName(getpid()), row.volume_bytes / 512, "log-writes", volume.Device() + " " + log->Path());
      stop = RunLogged(context, workload, logger, step);
      // dm-log-writes stops logging, and says so only here, when its log
      // is full or a write to it failed: what it holds is then not all.
      if (stop.empty() && logger.Status().find("logging_disabled") != std::string::npos)
        stop = "dm-log-writes stopped logging: its log of " + FormatSize(kWriteLogBytes) + " is full, or a write to it failed";
      if (const std::string left = logger.Remove(); !left.empty() && stop.empty()) stop = left;
    }
    if (!stop.empty()) return step.not_carried_out = stop;
    // The logger wrote both below their caches, which still hold what the
    // head's zeroing and the tree's writing left.
    volume.DropCaches();
    log->DropCaches();
    recording.log = CopyToMemory(log->Path(), kWriteLogBytes);
    recording.log_bytes = kWriteLogBytes;
    recording.entries = ReadWriteLog(recording.log.Get(), kWriteLogBytes, row.volume_bytes);
    recording.logger = Summary(recording.entries);
    step.lines.push_back("logger: " + recording.logger);
    if (context.keep_damaged)
      Keep("/proc/self/fd/" + std::to_string(recording.log.Get()), kWriteLogBytes,
           context.store.Path() + ".power-cut.log", step);
  } catch (const std::exception& e) {
    recording.log.Reset();
    return step.not_carried_out = std::string("the workload could not be logged: ") + e.what();
  }
  return "";
}
