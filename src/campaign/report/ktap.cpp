#include "campaign/report/ktap.h"

namespace {

constexpr const char* kSubtestIndent = "  ";

}  // namespace

void KtapWriter::Begin(const std::vector<std::string>& header, size_t rows) {
  Line("KTAP version 1");
  for (const std::string& line : header) Note(line);
  Line("1.." + std::to_string(rows));
}

void KtapWriter::Note(const std::string& text) { Line("# " + text); }

void KtapWriter::Line(const std::string& text) {
  m_out.Append((m_in_row ? kSubtestIndent : "") + text + "\n");
}

void KtapWriter::Result(bool ok, size_t number, const std::string& name, const std::string& directive,
                        const std::string& text) {
  std::string line = (ok ? "ok " : "not ok ") + std::to_string(number) + " " + name;
  const std::string said = directive.empty() ? text : text.empty() ? directive : directive + " " + text;
  if (!said.empty()) line += " # " + said;
  Line(line);
}

void KtapWriter::BeginRow(const std::string& name, size_t steps) {
  m_in_row = true;
  Line("KTAP version 1");
  Line("# Subtest: " + name);
  Line("1.." + std::to_string(steps));
}

void KtapWriter::Step(size_t number, const StepObservation& step, const Verdict& verdict) {
  for (const std::string& line : step.lines) Note(line);
  for (const KernelMessage& message : step.kernel.messages) Note("kernel: " + message.text);
  for (const std::string& reason : verdict.reasons) Note("not ok: " + reason);
  const std::string& text = verdict.directive == "SKIP" ? step.skipped : step.said;
  Result(verdict.ok, number, step.name, verdict.directive,
         text.empty() && !verdict.reasons.empty() ? verdict.reasons.front() : text);
}

void KtapWriter::StepCutShort(size_t number, const std::string& name, const std::string& why) {
  Result(false, number, name, "ERROR", why);
}

void KtapWriter::StepNotRun(size_t number, const std::string& name, const std::string& why) {
  Result(true, number, name, "SKIP", why);
}

void KtapWriter::EndRow(size_t number, const std::string& name, const Verdict& verdict, const std::string& text) {
  m_in_row = false;
  Result(verdict.ok, number, name, verdict.directive, text);
}
