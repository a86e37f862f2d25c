#include "campaign/volume_row.h"

#include "campaign/checker.h"

namespace {

using std::chrono::seconds;

constexpr seconds kProgramLimit{600};
// A fill of a slow card takes its time.
constexpr seconds kTestLimit{3600};

}  // namespace

RowResult RunVolumeRow(Context& context, const Row& row) {
  RowResult result{row.name, false, {}, {}, {}, {}, {}};
  context.progress.Step("make");
  const std::unique_ptr<LoopDevice> loop = context.store.FreshVolume(row.volume_bytes);
  const std::vector<std::string> devices{loop->Name()};
  result.lines.push_back(VolumeLine(row.volume_bytes, row.cluster_bytes, loop->Path()));
  const ChildOutcome mkfs =
      RunProgram({"mkfs.exfat", "-c", std::to_string(row.cluster_bytes), loop->Path()}, kProgramLimit);
  if (!mkfs.Succeeded()) {
    result.error = "mkfs.exfat " + mkfs.Describe() + ": " + LastWord(mkfs.Lines());
    return result;
  }
  MountAttempt mount = Mount(context.driver, loop->Path(), context.mount_point);
  result.lines.insert(result.lines.end(), mount.driver_lines.begin(), mount.driver_lines.end());
  result.kernel = context.kernel_log.Take(devices);
  if (!mount.volume || mount.read_only) {
    result.error = "the driver did not take the new volume: " + mount.Describe();
    return result;
  }

  context.progress.Step("run");
  StepResult run;
  run.name = "run";
  const ChildOutcome test =
      RunProgram({context.tool, "-v", context.mount_point + "/", "-a", row.name}, kTestLimit);
  for (const std::string& line : test.Lines()) run.lines.push_back("qvexfat-test: " + line);
  if (test.Succeeded()) {
    run.said = run.cell = "passed";
  } else {
    run.cell = "failed: " + LastWord(test.Lines());
    run.Fail(test.timed_out ? "TIMEOUT" : "", "failed (" + test.Describe() + "): " + LastWord(test.Lines()));
  }
  run.TakeKernel(context.kernel_log.Take(devices));
  result.steps.push_back(run);

  context.progress.Step("check");
  StepResult check;
  check.name = "check";
  const std::string trouble = mount.volume->Unmount();
  if (!trouble.empty()) check.lines.push_back("unmount: " + trouble);
  const CheckerRun checker = RunChecker(context.checker, "-n", loop->Path());
  for (const std::string& line : checker.Transcript()) check.lines.push_back(line);
  check.said = check.cell = checker.Clean()  ? "clean"
                            : checker.Ran() ? "damage found: " + checker.FirstLine()
                                            : "the checker did not run to its end: " + checker.outcome.Describe();
  check.TakeKernel(context.kernel_log.Take(devices));
  result.steps.push_back(check);
  return result;
}
