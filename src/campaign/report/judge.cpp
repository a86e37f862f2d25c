#include "campaign/report/judge.h"

#include <algorithm>

#include <fmt/format.h>

namespace {

// fsck's exit statuses: 1 to 7 a verdict on the volume (4: errors left),
// 8 and above an operational error, 126 and 127 the program did not run.
constexpr int kErrorsLeft = 4;
constexpr int kOperationalError = 8;
constexpr int kCannotRun = 126;

void Hazard(Verdict& verdict, const std::string& reason) {
  verdict.ok = false;
  if (std::find(verdict.reasons.begin(), verdict.reasons.end(), reason) == verdict.reasons.end())
    verdict.reasons.push_back(reason);
}

// TIMEOUT over ERROR: a program that never ended tells the most.
void Directive(Verdict& verdict, const std::string& directive, const std::string& reason) {
  Hazard(verdict, reason);
  if (verdict.directive != "TIMEOUT") verdict.directive = directive;
}

bool IsChecker(Purpose purpose) {
  return purpose == Purpose::kBaseline || purpose == Purpose::kLook || purpose == Purpose::kMustBeClean ||
         purpose == Purpose::kRepair;
}

void JudgeRun(const Run& run, Verdict& verdict) {
  const Ending& end = run.end;
  if (end.TimedOut()) return Directive(verdict, "TIMEOUT", run.label + " " + end.Describe());
  if (run.purpose == Purpose::kSetUp) {
    if (!end.Succeeded()) Directive(verdict, "ERROR", run.label + " " + end.Describe());
    return;
  }
  if (end.Signalled()) {
    if (run.purpose != Purpose::kWork) Hazard(verdict, run.label + " was " + end.Describe());
    return;
  }
  const int code = end.code;
  if (run.purpose == Purpose::kTest && code != 0) return Hazard(verdict, "the test failed (" + end.Describe() + ")");
  if (!IsChecker(run.purpose) || code == 0) return;
  if (code >= kCannotRun) return Hazard(verdict, run.label + " did not run (" + end.Describe() + ")");
  if (code >= kOperationalError) return Hazard(verdict, run.label + " failed to check (" + end.Describe() + ")");
  switch (run.purpose) {
    case Purpose::kBaseline:
      return Directive(verdict, "ERROR", run.label + " found the fresh volume damaged (" + end.Describe() + ")");
    case Purpose::kMustBeClean: return Hazard(verdict, run.label + " found damage (" + end.Describe() + ")");
    case Purpose::kRepair:
      if (code >= kErrorsLeft) Hazard(verdict, "the repair failed (" + run.label + " " + end.Describe() + ")");
      return;
    default: return;
  }
}

void JudgeFile(const FileRead& file, Verdict& verdict) {
  const std::string what = file.label + (file.detail.empty() ? "" : " (" + file.detail + ")");
  switch (file.state) {
    case FileState::kSame: return;
    case FileState::kTimedOut: return Directive(verdict, "TIMEOUT", "reading " + what + " did not end");
    case FileState::kReadError:
      // A driver may refuse to read a damaged volume; a repaired volume
      // that reads with errors has not been repaired.
      if (file.expect == Expect::kUntouched || file.expect == Expect::kDurable || file.expect == Expect::kReadable)
        Hazard(verdict, what + " could not be read");
      return;
    case FileState::kMissing:
      if (file.expect == Expect::kDurable) Hazard(verdict, "lost although written and synced: " + what);
      if (file.expect == Expect::kUntouched) Hazard(verdict, "the repair lost " + what + ", which the damage did not hit");
      return;
    case FileState::kShort:
      if (file.expect == Expect::kUntouched) Hazard(verdict, "the repair cut short " + what + ", which the damage did not hit");
      else if (file.expect == Expect::kAsWritten || file.expect == Expect::kDurable)
        Hazard(verdict, "read back shorter than written: " + what);
      return;
    case FileState::kDiffers:
      if (file.expect == Expect::kUntouched) Hazard(verdict, "the repair changed " + what + ", which the damage did not hit");
      else if (file.expect == Expect::kAsWritten || file.expect == Expect::kDurable)
        Hazard(verdict, "read back other bytes than written: " + what);
      return;
  }
}

}  // namespace

Verdict JudgeStep(const StepObservation& step) {
  Verdict verdict;
  if (!step.skipped.empty()) {
    verdict.directive = "SKIP";
    return verdict;
  }
  // The store's failure is one reason, however many blocks the kernel
  // names (and it names them at a limited rate).
  std::string store_failed = step.store_trouble;
  for (const KernelMessage& message : step.kernel.messages) {
    if (message.kind == KernelClass::kBug) Hazard(verdict, "the kernel reported a bug: " + message.text);
    if (message.kind == KernelClass::kIoError && store_failed.empty()) store_failed = message.text;
  }
  if (!store_failed.empty()) Directive(verdict, "ERROR", "the scratch store failed under the row: " + store_failed);
  if (step.kernel.lost != 0)
    Hazard(verdict, std::to_string(step.kernel.lost) +
                        " kernel log records were overwritten before they were read: a bug report may be among them");
  for (const Ending& daemon : step.daemons)
    if (daemon.Signalled()) Hazard(verdict, "the FUSE daemon was " + daemon.Describe());
  for (const Run& run : step.runs) JudgeRun(run, verdict);
  for (const FileRead& file : step.files) JudgeFile(file, verdict);
  for (const std::string& disagreement : step.disagreements) Hazard(verdict, "two reads disagree: " + disagreement);
  for (const std::string& mount : step.promised_mounts)
    if (mount != "taken") Hazard(verdict, "the driver did not take the volume it left at a flush: " + mount);
  const std::vector<uint64_t>& passes = step.repair_passes;
  if (passes.size() > 1 && passes[1] != 0)
    Hazard(verdict, fmt::format("the repair did not finish in one pass: pass 2 changed {} {}", passes[1],
                                passes[1] == 1 ? "sector" : "sectors"));
  if (passes.size() > 2 && passes.back() != 0)
    Hazard(verdict, fmt::format("the repair does not converge: pass {} still changed {} {}", passes.size(),
                                passes.back(), passes.back() == 1 ? "sector" : "sectors"));
  if (!step.not_carried_out.empty()) Directive(verdict, "ERROR", step.not_carried_out);
  return verdict;
}

Verdict JudgeRow(const std::vector<Verdict>& steps) {
  Verdict row;
  if (!steps.empty() && steps.front().directive == "SKIP") row.directive = "SKIP";
  for (const Verdict& step : steps) {
    if (step.ok) continue;
    row.ok = false;
    if (step.directive == "TIMEOUT" || (step.directive == "ERROR" && row.directive != "TIMEOUT"))
      row.directive = step.directive;
  }
  if (!row.ok && row.directive == "SKIP") row.directive.clear();
  return row;
}

Verdict JudgeGroup(const std::vector<Verdict>& rows) {
  Verdict group = JudgeRow(rows);
  if (std::any_of(rows.begin(), rows.end(), [](const Verdict& row) { return row.directive != "SKIP"; }) &&
      group.directive == "SKIP")
    group.directive.clear();
  return group;
}
