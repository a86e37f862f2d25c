#include "campaign/trial/repair_step.h"

#include <optional>

#include <fmt/format.h>

#include "campaign/machine/sector_snapshot.h"
#include "campaign/trial/read_back.h"

namespace {

// fsck's exit status from which a repair has failed: errors left.
constexpr int kErrorsLeft = 4;
// A repair that still changes the volume after this many passes does not
// converge.
constexpr size_t kPasses = 3;

std::string Sectors(uint64_t count) { return fmt::format("{} {}", count, count == 1 ? "sector" : "sectors"); }

// fsck -y until a pass changes nothing, at most kPasses times, then -n;
// the sectors each pass changed counted.
std::string Passes(VolumeUnderTest& volume, StepObservation& step) {
  std::optional<CheckerRun> first;
  do {
    const SectorSnapshot before(volume.Device());
    const CheckerRun repair = volume.Check(step, "-y", Purpose::kRepair);
    step.repair_passes.push_back(SectorSnapshot(volume.Device()).ChangedSince(before).size());
    if (!first) first = repair;
  } while (step.repair_passes.back() != 0 && step.repair_passes.size() < kPasses);
  const Ending& end = first->run.end;
  std::string said = end.kind != Ending::Kind::kExited || end.code >= kErrorsLeft
                         ? "the repair failed (" + first->label + " " + end.Describe() + ")"
                     : step.repair_passes.front() == 0 ? "nothing to repair"
                                                       : "repaired " + Sectors(step.repair_passes.front());
  for (size_t pass = 1; pass < step.repair_passes.size(); ++pass)
    if (step.repair_passes[pass] != 0 || pass > 1)
      said += fmt::format(", pass {} changed {}", pass + 1, Sectors(step.repair_passes[pass]));
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

void RepairStep(VolumeUnderTest& volume, const std::function<std::string(StepObservation&)>& read_files,
                const TreeFile& added) {
  StepObservation step = volume.Begin("repair");
  std::string said = Passes(volume, step);
  said += "; mount " + volume.Mount(step);
  if (volume.Mounted()) {
    said += "; " + read_files(step);  // before the file is added, while mounted
    said += "; " + InUse(volume, step, added);
  }
  step.said = step.cell = said;
  volume.LetGo(step);
  volume.End(std::move(step));
}
