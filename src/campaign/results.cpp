#include "campaign/results.h"

#include "campaign/kernel_log.h"

namespace {

bool AnyBugReport(const std::vector<std::string>& messages) {
  for (const std::string& message : messages)
    if (IsKernelBugReport(message)) return true;
  return false;
}

}  // namespace

void StepResult::Fail(const std::string& why_directive, const std::string& text) {
  ok = false;
  directive = why_directive;
  said = text;
}

void StepResult::TakeKernel(std::vector<std::string> messages) {
  kernel = std::move(messages);
  if (!AnyBugReport(kernel)) return;
  ok = false;
  said = "kernel bug report" + (said.empty() ? "" : "; " + said);
}

bool RowResult::Ok() const {
  if (!error.empty() || AnyBugReport(kernel)) return false;
  for (const StepResult& step : steps)
    if (!step.ok) return false;
  return true;
}
