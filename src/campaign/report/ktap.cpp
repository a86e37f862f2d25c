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
  std::string indent;
  for (size_t level = 0; level < m_depth; ++level) indent += kSubtestIndent;
  m_out.Append(indent + text + "\n");
}

void KtapWriter::ResultLine(bool ok, size_t number, const std::string& name, const std::string& directive,
                        const std::string& text) {
  std::string line = (ok ? "ok " : "not ok ") + std::to_string(number) + " " + name;
  const std::string said = directive.empty() ? text : text.empty() ? directive : directive + " " + text;
  if (!said.empty()) line += " # " + said;
  Line(line);
}

void KtapWriter::BeginSubtest(const std::string& name, size_t tests) {
  ++m_depth;
  Line("KTAP version 1");
  Line("# Subtest: " + name);
  Line("1.." + std::to_string(tests));
}

void KtapWriter::Step(size_t number, const StepObservation& step, const Verdict& verdict) {
  for (const std::string& line : step.lines) Note(line);
  for (const KernelMessage& message : step.kernel.messages) Note("kernel: " + message.text);
  for (const std::string& reason : verdict.reasons) Note("not ok: " + reason);
  const std::string& text = verdict.directive == "SKIP" ? step.skipped : step.said;
  ResultLine(verdict.ok, number, step.name, verdict.directive,
         text.empty() && !verdict.reasons.empty() ? verdict.reasons.front() : text);
}

void KtapWriter::StepCutShort(size_t number, const std::string& name, const std::string& why) {
  ResultLine(false, number, name, "ERROR", why);
}

void KtapWriter::StepNotRun(size_t number, const std::string& name, const std::string& why) {
  ResultLine(true, number, name, "SKIP", why);
}

void KtapWriter::EndSubtest(size_t number, const std::string& name, const Verdict& verdict, const std::string& text) {
  if (m_depth > 0) --m_depth;
  Result(number, name, verdict, text);
}

void KtapWriter::Result(size_t number, const std::string& name, const Verdict& verdict, const std::string& text) {
  ResultLine(verdict.ok, number, name, verdict.directive, text);
}
