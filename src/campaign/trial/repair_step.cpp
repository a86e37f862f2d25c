#include "campaign/trial/repair_step.h"

#include <fmt/format.h>

#include "campaign/machine/sector_snapshot.h"
#include "campaign/trial/read_back.h"

namespace {

// fsck's exit status from which a repair has failed: errors left.
constexpr int kErrorsLeft = 4;

std::string Sectors(uint64_t count) { return fmt::format("{} {}", count, count == 1 ? "sector" : "sectors"); }

// fsck -y twice, then -n, the sectors each pass changed counted.
std::string Passes(VolumeUnderTest& volume, StepObservation& step) {
  const SectorSnapshot before(volume.Device());
  const CheckerRun repair = volume.Check(step, "-y", Purpose::kRepair);
  const SectorSnapshot repaired(volume.Device());
  const size_t changed = repaired.ChangedSince(before).size();
  volume.Check(step, "-y", Purpose::kRepair);
  const size_t again = SectorSnapshot(volume.Device()).ChangedSince(repaired).size();
  step.second_repair_changed = again;
  const Ending& end = repair.run.end;
  std::string said = end.kind != Ending::Kind::kExited || end.code >= kErrorsLeft
                         ? "the repair failed (" + repair.label + " " + end.Describe() + ")"
                     : changed == 0 ? "nothing to repair"
                                    : "repaired " + Sectors(changed);
  if (again != 0) said += ", and a second pass changed " + Sectors(again);
  const CheckerRun check = volume.Check(step, "-n", Purpose::kMustBeClean);
  return said + (check.Clean() ? ", then clean" : ", then " + check.Verdict() + ": " + check.FirstLine());
}

// The repaired volume in use: a file written, read back after a remount,
// and the checker's word on what the driver left.
std::string InUse(VolumeUnderTest& volume, StepObservation& step, const TreeFile& added) {
  std::string said = added.label + " " + volume.WriteSynced(step, added);
  volume.Unmount(step);
  said += ", remount " + volume.Mount(step);
  if (volume.Mounted()) {
    said += ", " + Summarize(volume.Read(step, {added}, Expect::kDurable));
    volume.Unmount(step);
  }
  const CheckerRun after = volume.Check(step, "-n", Purpose::kMustBeClean);
  return said + "; then " + after.label + ": " + after.Verdict();
}

}  // namespace

void RepairStep(VolumeUnderTest& volume, const std::vector<std::pair<TreeFile, Expect>>& files, const TreeFile& added) {
  StepObservation step = volume.Begin("repair");
  std::string said = Passes(volume, step);
  said += "; mount " + volume.Mount(step);
  if (volume.Mounted()) {
    std::vector<FileRead> reads;
    for (const auto& [file, expect] : files) reads.push_back(volume.Read(step, {file}, expect).front());
    said += "; " + Summarize(reads) + "; " + InUse(volume, step, added);
  }
  step.said = step.cell = said;
  volume.LetGo(step);
  volume.End(std::move(step));
}
