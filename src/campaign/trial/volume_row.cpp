#include "campaign/trial/volume_row.h"

#include "campaign/trial/volume_under_test.h"

namespace {

constexpr std::chrono::seconds kMkfsLimit{600};

// The make step; false when the row cannot go on.
bool Make(const Row& row, VolumeUnderTest& volume) {
  StepObservation step = volume.Begin("make");
  step.lines.push_back(VolumeLine(row.volume_bytes, row.cluster_bytes, volume.Device()));
  const ProgramRun mkfs =
      RunProgram({"mkfs.exfat", "-c", std::to_string(row.cluster_bytes), volume.Device()}, kMkfsLimit);
  step.runs.push_back({Purpose::kSetUp, "mkfs.exfat", mkfs.end});
  if (!mkfs.end.Succeeded()) {
    step.not_carried_out = "mkfs.exfat " + mkfs.end.Describe() + ": " + LastWord(mkfs.Lines());
  } else {
    const std::string mount = volume.Mount(step);
    if (!volume.Mounted() || volume.MountedReadOnly())
      step.not_carried_out = "the driver did not take the new volume: " + mount;
  }
  step.said = step.not_carried_out.empty() ? "made and mounted" : "";
  const bool made = step.not_carried_out.empty();
  volume.End(std::move(step));
  return made;
}

}  // namespace

void RunVolumeRow(Context& context, const Row& row, RowListener& listener) {
  VolumeUnderTest volume(context, listener, row.volume_bytes);
  if (!Make(row, volume)) {
    for (const char* name : {"run", "check"}) {
      StepObservation step = volume.Begin(name);
      step.skipped = "not run: the volume was not made";
      volume.End(std::move(step));
    }
    return;
  }

  StepObservation run = volume.Begin("run");
  const ProgramRun test = RunProgram({context.tool, "-v", context.mount_point + "/", "-a", row.name}, context.limits.test);
  for (const std::string& line : test.Lines()) run.lines.push_back("qvexfat-test: " + line);
  run.runs.push_back({Purpose::kTest, "qvexfat-test -a " + row.name, test.end});
  run.said = run.cell = test.end.Succeeded() ? "passed" : "failed (" + test.end.Describe() + "): " + LastWord(test.Lines());
  volume.End(std::move(run));

  StepObservation check = volume.Begin("check");
  volume.Unmount(check);
  const CheckerRun checker = volume.Check(check, "-n", Purpose::kMustBeClean);
  check.said = check.cell = checker.Clean() ? "clean" : checker.Verdict() + ": " + checker.FirstLine();
  volume.LetGo(check);
  volume.End(std::move(check));
}
