#include "campaign/ktap_writer.h"

namespace {

constexpr const char* kSubtest = "  ";

// "ok 3 read", then " # DIRECTIVE data" when there is any.
std::string ResultLine(bool ok, size_t number, const std::string& name, const std::string& directive,
                       const std::string& data) {
  std::string line = (ok ? "ok " : "not ok ") + std::to_string(number) + " " + name;
  const std::string said = directive.empty() ? data : data.empty() ? directive : directive + " " + data;
  if (!said.empty()) line += " # " + said;
  return line;
}

// Why a row is not ok, when a step says it: "in write, repair".
std::string FailedSteps(const RowResult& row) {
  std::string names;
  for (const StepResult& step : row.steps)
    if (!step.ok) names += (names.empty() ? "in " : ", ") + step.name;
  return names;
}

}  // namespace

KtapWriter::KtapWriter(FILE* out, const std::vector<std::string>& header, size_t rows) : m_out(out) {
  Line("", "KTAP version 1");
  for (const std::string& line : header) Note(line);
  Line("", "1.." + std::to_string(rows));
}

void KtapWriter::Note(const std::string& text) { Line("", "# " + text); }

void KtapWriter::Line(const std::string& indent, const std::string& text) {
  fprintf(m_out, "%s%s\n", indent.c_str(), text.c_str());
  fflush(m_out);
}

void KtapWriter::Row(const RowResult& row) {
  const std::string indent = row.steps.empty() ? "" : kSubtest;
  if (!row.steps.empty()) {
    Line(indent, "KTAP version 1");
    Line(indent, "# Subtest: " + row.name);
  }
  for (const std::string& line : row.lines) Line(indent, "# " + line);
  for (const std::string& message : row.kernel) Line(indent, "# kernel: " + message);
  if (!row.steps.empty()) {
    Line(indent, "1.." + std::to_string(row.steps.size()));
    for (size_t i = 0; i < row.steps.size(); ++i) {
      const StepResult& step = row.steps[i];
      for (const std::string& line : step.lines) Line(indent, "# " + line);
      for (const std::string& message : step.kernel) Line(indent, "# kernel: " + message);
      Line(indent, ResultLine(step.ok, i + 1, step.name, step.directive, step.said));
    }
  }
  ++m_number;
  if (!row.error.empty()) {
    Line("", ResultLine(false, m_number, row.name, "ERROR", row.error));
  } else if (!row.skip.empty()) {
    Line("", ResultLine(true, m_number, row.name, "SKIP", row.skip));
  } else {
    const bool ok = row.Ok();
    std::string why = ok ? "" : FailedSteps(row);
    if (!ok && why.empty()) why = "a kernel bug report while the volume was made";
    Line("", ResultLine(ok, m_number, row.name, "", why));
  }
}
