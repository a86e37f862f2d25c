#include "campaign/trial/volume_under_test.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "campaign/machine/error_name.h"
#include "campaign/machine/interrupt.h"
#include "campaign/trial/read_back.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

using std::chrono::seconds;

// Reading or writing one file of the tree.

// What crosses the fork from a write: the errno of the call that failed.
struct WriteCall {
  int error;
};

}  // namespace

VolumeUnderTest::VolumeUnderTest(Context& context, RowListener& listener, uint64_t bytes)
    : m_context(context), m_listener(listener), m_loop(context.store.FreshVolume(bytes)) {
  m_devices.push_back(m_loop->Name());
  if (!context.store.IsImage()) m_devices.push_back(context.store.Path().substr(context.store.Path().rfind('/') + 1));
}

VolumeUnderTest::~VolumeUnderTest() {
  m_mount.reset();  // before the loop device it is mounted from
}

StepObservation VolumeUnderTest::Begin(const std::string& name) {
  ThrowIfInterrupted();
  m_listener.StepBegins(name);
  StepObservation step;
  step.name = name;
  return step;
}

void VolumeUnderTest::End(StepObservation step) {
  if (m_mount)
    for (const Ending& end : m_mount->DaemonsEnded()) step.daemons.push_back(end);
  for (const Ending& end : step.daemons)
    if (!end.Succeeded()) step.lines.push_back("the FUSE daemon ended: " + end.Describe());
  KernelWords words = m_context.kernel_log.Take(m_devices);
  for (KernelMessage& message : words.messages) step.kernel.messages.push_back(std::move(message));
  step.kernel.lost += words.lost;
  step.store_trouble = m_context.store.Trouble();
  m_listener.StepEnded(std::move(step));
}

void VolumeUnderTest::SkipSteps(const std::vector<std::string>& names, const std::string& why) {
  for (const std::string& name : names) {
    StepObservation step = Begin(name);
    step.skipped = why;
    End(std::move(step));
  }
}

bool VolumeUnderTest::MountStep() {
  StepObservation step = Begin("mount");
  step.said = step.cell = Mount(step);
  End(std::move(step));
  return Mounted();
}

CheckerRun VolumeUnderTest::Check(StepObservation& step, const std::string& mode, Purpose purpose) {
  CheckerRun run = RunChecker(m_context.checker, mode, Device(), m_context.limits.checker);
  Record(run, purpose, step);
  return run;
}

std::string VolumeUnderTest::Mount(StepObservation& step) {
  m_context.store.DropCaches();
  m_loop->DropCaches();
  MountAttempt attempt = ::Mount(m_context.driver, Device(), m_context.mount_point, m_context.limits.mount);
  step.lines.insert(step.lines.end(), attempt.driver_lines.begin(), attempt.driver_lines.end());
  step.runs.push_back({Purpose::kMount, m_context.driver == Driver::kFuse ? "mount.exfat-fuse" : "mount",
                       attempt.helper});
  const std::string said = attempt.Describe();
  m_mount = std::move(attempt.volume);
  m_read_only = attempt.read_only;
  return said;
}

void VolumeUnderTest::Unmount(StepObservation& step) {
  if (!m_mount) return;
  const std::string trouble = m_mount->Unmount(m_context.limits.mount, step.daemons);
  m_mount.reset();
  if (!trouble.empty()) step.lines.push_back("unmount: " + trouble);
}

std::vector<FileRead> VolumeUnderTest::Read(StepObservation& step, const std::vector<TreeFile>& files,
                                             Expect expect, uint64_t explained_from) {
  std::vector<FileRead> reads;
  for (const TreeFile& file : files) {
    reads.push_back(
        Judged(file, expect, ReadBack(m_context.mount_point, file, m_context.limits.mount), explained_from));
    const std::string evidence = Evidence(reads.back());
    if (!evidence.empty()) step.lines.push_back(evidence);
    step.files.push_back(reads.back());
  }
  return reads;
}

std::string VolumeUnderTest::WriteSynced(StepObservation& step, const TreeFile& file) {
  const std::string path = m_context.mount_point + "/" + file.path;
  const auto run = RunIsolated<WriteCall>(m_context.limits.mount, [&] {
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd.IsOpen()) return WriteCall{errno};
    try {
      WriteContents(fd.Get(), file, 0, file.size);
    } catch (const ErrnoException& e) {
      return WriteCall{e.ErrorNumber()};
    }
    if (fsync(fd.Get()) != 0 || syncfs(fd.Get()) != 0) return WriteCall{errno};
    return WriteCall{0};
  });
  step.runs.push_back({Purpose::kWork, "writing " + file.label, run.end});
  const std::string said = !run.result        ? "failed (" + run.end.Describe() + ")"
                           : run.result->error ? "failed (" + ErrorName(run.result->error) + ")"
                                               : "written";
  step.lines.push_back("write: " + file.path + ", " + std::to_string(file.size) + " bytes: " + said);
  return said;
}

void VolumeUnderTest::LetGo(StepObservation& step) {
  Unmount(step);
  const std::string left = m_loop->Release();
  if (!left.empty()) step.lines.push_back(left);
}

std::string VolumeLine(uint64_t bytes, uint64_t cluster_bytes, const std::string& device) {
  return "volume: " + FormatSize(bytes) + " with " + FormatSize(cluster_bytes) + " clusters, on " + device;
}

std::string LastWord(const std::vector<std::string>& lines) {
  for (auto line = lines.rbegin(); line != lines.rend(); ++line)
    if (!line->empty() && *line != "Test failure") return *line;
  return "(nothing printed)";
}
