#include "campaign/power/replay_row.h"

#include <fmt/format.h>

#include "campaign/power/cut_volume.h"
#include "campaign/power/user_log.h"
#include "campaign/trial/image_walk.h"
#include "campaign/trial/repair_step.h"
#include "campaign/trial/volume_under_test.h"

namespace {

// The base on the row's volume, and the log replayed onto it to the row's
// point; what stops the row, or "".
std::string Make(const Context& context, UserLog& log, const ReplayPoint& point, VolumeUnderTest& volume) {
  StepObservation step = volume.Begin("make");
  step.lines.push_back(fmt::format("replay: {}, {} entries, onto {} ({}, {} bytes), on {}", log.path,
                                   log.entries.entries.size(), log.base->Path(), log.base->Format(), log.base_bytes,
                                   volume.Device()));
  step.lines.push_back(PointLine(point));
  try {
    if (!log.base_volume.Made()) {
      log.base->CopyTo(volume.Device(), context.store.IsImage());
      log.base_volume.Capture(volume.Device(), log.base_bytes);
    }
    CutVolume(log.base_volume, log.entries, log.fd.Get(), volume.Device(), point);
    step.lines.push_back("VolumeDirty: " + VolumeDirty(volume.Device()));
    step.said = step.cell = fmt::format("replayed {} {}", point.applied, point.applied == 1 ? "entry" : "entries");
  } catch (const std::exception& e) {
    step.not_carried_out = fmt::format("the log could not be replayed to entry {}: {}", point.entry, e.what());
  }
  const std::string stop = step.not_carried_out;
  volume.End(std::move(step));
  return stop;
}

}  // namespace

void RunReplayRow(Context& context, const Row& row, uint32_t seed, RowListener& listener) {
  UserLog& log = *row.replayed;
  VolumeUnderTest volume(context, listener, row.volume_bytes);
  if (const std::string stop = Make(context, log, log.points[row.point], volume); !stop.empty())
    return volume.SkipSteps({"check", "mount", "repair"}, stop);
  StepObservation check = volume.Begin("check");
  const CheckerRun run = volume.Check(check, "-n", Purpose::kMustBeClean);
  check.said = check.cell = run.Verdict() == "damage" ? "damage: " + run.FirstLine() : run.Verdict();
  volume.End(std::move(check));
  StepObservation mount = volume.Begin("mount");
  mount.said = mount.cell = volume.Mount(mount);
  mount.promised_mounts.push_back(mount.said);
  volume.Unmount(mount);
  volume.End(std::move(mount));
  RepairStep(
      volume,
      [&](StepObservation& step) {
        step.lines.push_back("VolumeDirty after the repair: " + VolumeDirty(volume.Device()));
        const Walk walk = WalkVolume(context.mount_point, context.limits.mount);
        step.runs.push_back({Purpose::kWork, "reading the volume", walk.end});
        if (!walk.finished) return "not read: " + walk.end.Describe();
        for (FileRead& unreadable : Unreadable(walk)) step.files.push_back(std::move(unreadable));
        return walk.Summary();
      },
      NewFile("new2", seed));
}
