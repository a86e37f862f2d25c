#include "campaign/report/judge.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::seconds;

Ending Exit(int code) { return {Ending::Kind::kExited, code, false, false, seconds(600)}; }
Ending Signal(int number) { return {Ending::Kind::kSignalled, number, number == 11, false, seconds(600)}; }
Ending Timeout() { return {Ending::Kind::kTimedOut, 0, false, false, seconds(600)}; }

StepObservation Ran(Purpose purpose, Ending end) {
  StepObservation step;
  step.runs.push_back({purpose, "fsck.exfat -n", end});
  return step;
}

StepObservation Read(Expect expect, FileState state) {
  StepObservation step;
  step.files.push_back({"file2", expect, state, ""});
  return step;
}

// "ok", "not ok", "SKIP", "not ok TIMEOUT", "not ok ERROR".
std::string Said(const Verdict& verdict) {
  std::string said = verdict.ok ? "ok" : "not ok";
  if (!verdict.directive.empty()) said = verdict.directive == "SKIP" ? "SKIP" : said + " " + verdict.directive;
  EXPECT_EQ(verdict.ok, verdict.reasons.empty()) << said;
  return said;
}

TEST(Judge, HowAProgramEndedIsReadByWhatItRanFor) {
  const struct {
    Purpose purpose;
    Ending end;
    const char* verdict;
  } cases[] = {
      {Purpose::kLook, Exit(0), "ok"},
      {Purpose::kLook, Exit(4), "ok"},  // caught: knowledge
      {Purpose::kLook, Exit(8), "not ok"},
      {Purpose::kLook, Exit(127), "not ok"},
      {Purpose::kLook, Exit(126), "not ok"},
      {Purpose::kLook, Signal(11), "not ok"},
      {Purpose::kLook, Timeout(), "not ok TIMEOUT"},
      {Purpose::kBaseline, Exit(4), "not ok ERROR"},
      {Purpose::kBaseline, Timeout(), "not ok TIMEOUT"},
      {Purpose::kMustBeClean, Exit(1), "not ok"},
      {Purpose::kMustBeClean, Exit(0), "ok"},
      {Purpose::kRepair, Exit(1), "ok"},
      {Purpose::kRepair, Exit(3), "ok"},
      {Purpose::kRepair, Exit(4), "not ok"},
      {Purpose::kRepair, Signal(6), "not ok"},
      {Purpose::kSetUp, Exit(1), "not ok ERROR"},
      {Purpose::kSetUp, Signal(9), "not ok ERROR"},
      {Purpose::kTest, Exit(255), "not ok"},
      {Purpose::kTest, Timeout(), "not ok TIMEOUT"},
      {Purpose::kMount, Exit(1), "ok"},  // refused: knowledge
      {Purpose::kMount, Signal(11), "not ok"},
      {Purpose::kMount, Timeout(), "not ok TIMEOUT"},
      {Purpose::kWork, Signal(9), "ok"},  // the file it read says what came of it
  };
  for (const auto& c : cases)
    EXPECT_EQ(Said(JudgeStep(Ran(c.purpose, c.end))), c.verdict)
        << static_cast<int>(c.purpose) << " " << c.end.Describe();
}

// Bytes read back other than those written fail every step; after a
// repair only a file the damage hit may be cut short, changed or lost.
TEST(Judge, AFileIsJudgedByWhatItMustBe) {
  const struct {
    Expect expect;
    FileState state;
    const char* verdict;
  } cases[] = {
      {Expect::kAsWritten, FileState::kSame, "ok"},
      {Expect::kAsWritten, FileState::kDiffers, "not ok"},
      {Expect::kAsWritten, FileState::kShort, "not ok"},
      {Expect::kAsWritten, FileState::kMissing, "ok"},
      {Expect::kAsWritten, FileState::kReadError, "ok"},
      {Expect::kAsWritten, FileState::kTimedOut, "not ok TIMEOUT"},
      {Expect::kDurable, FileState::kMissing, "not ok"},
      {Expect::kDurable, FileState::kDiffers, "not ok"},
      {Expect::kDurable, FileState::kShort, "not ok"},
      {Expect::kExplained, FileState::kShort, "ok"},
      {Expect::kExplained, FileState::kDiffers, "ok"},
      {Expect::kDurable, FileState::kReadError, "not ok"},
      {Expect::kUntouched, FileState::kMissing, "not ok"},
      {Expect::kUntouched, FileState::kShort, "not ok"},
      {Expect::kUntouched, FileState::kDiffers, "not ok"},
      {Expect::kHit, FileState::kMissing, "ok"},
      {Expect::kHit, FileState::kShort, "ok"},
      {Expect::kHit, FileState::kDiffers, "ok"},
      {Expect::kHit, FileState::kReadError, "ok"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Said(JudgeStep(Read(c.expect, c.state))), c.verdict)
        << static_cast<int>(c.expect) << " " << static_cast<int>(c.state);
}

TEST(Judge, TheKernelTheDaemonAndASecondRepairPass) {
  StepObservation bug;
  bug.kernel.messages.push_back({KernelClass::kBug, "BUG: KASAN: use-after-free in exfat_ent_get"});
  bug.kernel.messages.push_back({KernelClass::kNote, "exFAT-fs (loop0): failed to load upcase table"});
  EXPECT_EQ(JudgeStep(bug).reasons, std::vector<std::string>{"the kernel reported a bug: BUG: KASAN: use-after-free in exfat_ent_get"});
  StepObservation store;
  store.kernel.messages.push_back({KernelClass::kIoError, "Buffer I/O error on dev loop0, logical block 9"});
  EXPECT_EQ(Said(JudgeStep(store)), "not ok ERROR");
  StepObservation overrun;
  overrun.kernel.lost = 3;
  EXPECT_EQ(Said(JudgeStep(overrun)), "not ok");
  StepObservation daemon;
  daemon.daemons = {Exit(0)};
  EXPECT_EQ(Said(JudgeStep(daemon)), "ok");
  daemon.daemons.push_back(Signal(11));
  EXPECT_EQ(JudgeStep(daemon).reasons,
            std::vector<std::string>{"the FUSE daemon was killed by signal 11 (SIGSEGV), core dumped"});
  StepObservation repair;
  repair.repair_passes = {5, 0};
  EXPECT_EQ(Said(JudgeStep(repair)), "ok");
  repair.repair_passes = {5, 2, 0};
  EXPECT_EQ(JudgeStep(repair).reasons,
            std::vector<std::string>{"the repair did not finish in one pass: pass 2 changed 2 sectors"});
  repair.repair_passes = {1, 1, 1};
  EXPECT_EQ(JudgeStep(repair).reasons,
            (std::vector<std::string>{"the repair did not finish in one pass: pass 2 changed 1 sector",
                                      "the repair does not converge: pass 3 still changed 1 sector"}));
  StepObservation promised;
  promised.promised_mounts = {"taken"};
  EXPECT_EQ(Said(JudgeStep(promised)), "ok");
  promised.promised_mounts.push_back("taken read-only");
  EXPECT_EQ(JudgeStep(promised).reasons,
            std::vector<std::string>{"the driver did not take the volume it left at a flush: taken read-only"});
  StepObservation skipped = Ran(Purpose::kLook, Exit(8));
  skipped.skipped = "not mounted";
  EXPECT_EQ(Said(JudgeStep(skipped)), "SKIP");
  StepObservation both = Ran(Purpose::kLook, Timeout());
  both.not_carried_out = "the volume could not be made";
  EXPECT_EQ(Said(JudgeStep(both)), "not ok TIMEOUT");
}

TEST(Judge, ARowIsAsItsWorstStep) {
  const Verdict ok, skip{true, "SKIP", {}}, hazard{false, "", {"x"}}, error{false, "ERROR", {"x"}},
      timeout{false, "TIMEOUT", {"x"}};
  EXPECT_EQ(Said(JudgeRow({ok, ok, skip})), "ok");
  EXPECT_EQ(Said(JudgeRow({skip, skip})), "SKIP");
  EXPECT_EQ(JudgeRow({ok, hazard, skip}).ok, false);
  EXPECT_EQ(JudgeRow({ok, hazard}).directive, "");
  EXPECT_EQ(JudgeRow({error, skip}).directive, "ERROR");
  EXPECT_EQ(JudgeRow({hazard, timeout, error}).directive, "TIMEOUT");
  // A structure's rows: a skipped first row does not make the rest skipped.
  EXPECT_EQ(JudgeGroup({skip, ok}).directive, "");
  EXPECT_EQ(JudgeGroup({skip, skip}).directive, "SKIP");
  EXPECT_EQ(JudgeGroup({skip, ok, error}).ok, false);
}

}  // namespace
