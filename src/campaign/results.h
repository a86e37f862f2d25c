#pragma once

#include <string>
#include <vector>

// What one step of a row saw. A step is not ok only for a hazard: a
// kernel bug report, bytes read back without an error that differ from
// those written, a repair that fails or leaves damage, a volume test that
// fails. What the checker misses or the driver refuses is knowledge, told
// in `said`, and ok.
struct StepResult {
  std::string name;  // check, mount, read, write, repair; run
  bool ok = true;
  // KTAP's directive: "SKIP" (not run), "TIMEOUT", "ERROR" (could not be
  // carried out); empty for none.
  std::string directive;
  std::string said;                 // the result line's diagnostic data
  std::vector<std::string> lines;   // diagnostic lines before the result
  std::vector<std::string> kernel;  // the kernel's messages during the step
  std::string cell;                 // the step in short, for the Markdown table

  // Not ok, with a directive.
  void Fail(const std::string& why_directive, const std::string& text);
  // Not ok, and said so first, when the kernel reported a bug during the
  // step.
  void TakeKernel(std::vector<std::string> messages);
};

struct RowResult {
  std::string name;
  bool damage = true;
  std::vector<std::string> lines;   // before the steps: the volume, the damage
  std::vector<std::string> kernel;  // the kernel's messages while the volume was made
  std::vector<StepResult> steps;
  std::string error;  // the row could not be run, and why
  std::string skip;   // the row does not apply to the volume, and why

  bool Ok() const;
};
