#pragma once

#include <memory>
#include <string>
#include <vector>

#include "campaign/machine/loop_device.h"
#include "campaign/machine/mounts.h"
#include "campaign/trial/checker.h"
#include "campaign/trial/context.h"
#include "campaign/trial/known_tree.h"
#include "campaign/trial/observation.h"

// A row's volume, a loop device over the scratch store, and what its steps
// do to it, each recording what it saw in the step at hand. A step begins
// with Begin and is reported with End, which adds what the kernel said
// during it and how a FUSE daemon ended meanwhile.
class VolumeUnderTest {
 public:
  VolumeUnderTest(Context& context, RowListener& listener, uint64_t bytes);
  ~VolumeUnderTest();

  const std::string& Device() const { return m_loop->Path(); }
  bool Mounted() const { return m_mount != nullptr; }
  bool MountedReadOnly() const { return m_read_only; }
  // Whether the driver has turned the mounted volume read-only since.
  bool NowReadOnly() const { return m_mount && m_mount->IsReadOnly(m_context.limits.mount); }

  // Drops the device's cached blocks: written from beneath (by a
  // device-mapper target over the same loop device), the cache is stale.
  void DropCaches() const { m_loop->DropCaches(); }

  StepObservation Begin(const std::string& name);
  void End(StepObservation step);

  // Steps that do not apply, each reported as skipped for `why`.
  void SkipSteps(const std::vector<std::string>& names, const std::string& why);
  // The mount step of a row, which says how the mount went; whether the
  // volume is mounted.
  bool MountStep();

  // Each adds its lines and runs to `step`.
  CheckerRun Check(StepObservation& step, const std::string& mode, Purpose purpose);
  // The mount's outcome in a word: "taken", "refused (EIO)".
  std::string Mount(StepObservation& step);
  void Unmount(StepObservation& step);
  // Reads each file back below the mount point, as `expect` says it must be
  // (see Judged for `explained_from`).
  std::vector<FileRead> Read(StepObservation& step, const std::vector<TreeFile>& files, Expect expect,
                             uint64_t explained_from = 0);
  // Writes a file whole, fsync's it and syncfs's the volume: "written",
  // or "failed (ENOSPC)".
  std::string WriteSynced(StepObservation& step, const TreeFile& file);
  // Lets go of the volume at the row's end, and says so when its loop
  // device is still attached a while after (a FUSE daemon holding on).
  void LetGo(StepObservation& step);

 private:
  Context& m_context;
  RowListener& m_listener;
  std::unique_ptr<LoopDevice> m_loop;
  std::unique_ptr<MountedVolume> m_mount;
  bool m_read_only = false;
  std::vector<std::string> m_devices;  // as the kernel log names them
};

// "volume: 32M with 4K clusters, on /dev/loop0"
std::string VolumeLine(uint64_t bytes, uint64_t cluster_bytes, const std::string& device);
// The last line of a program's output that says something: a test's last
// line before "Test failure", mkfs.exfat's complaint.
std::string LastWord(const std::vector<std::string>& lines);
