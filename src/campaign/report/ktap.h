#pragma once

#include <string>
#include <vector>

#include "campaign/report/judge.h"
#include "campaign/report/report_file.h"
#include "campaign/trial/observation.h"

// Writes the campaign's results in KTAP version 1, the kernel's test output
// format: a row is a test, its steps an indented subtest. Each line is
// written as it comes, so that a run that dies keeps what it saw.
class KtapWriter {
 public:
  explicit KtapWriter(ReportFile& out) : m_out(out) {}

  // The version line, `header` as diagnostic lines, the plan.
  void Begin(const std::vector<std::string>& header, size_t rows);

  // A row's subtest header and plan.
  void BeginRow(const std::string& name, size_t steps);
  // A step's evidence, why it is not ok, and its result line.
  void Step(size_t number, const StepObservation& step, const Verdict& verdict);
  // A step that did not end: "not ok 3 read # ERROR interrupted by SIGINT".
  void StepCutShort(size_t number, const std::string& name, const std::string& why);
  void StepNotRun(size_t number, const std::string& name, const std::string& why);
  // The row's result line; `text` follows its directive.
  void EndRow(size_t number, const std::string& name, const Verdict& verdict, const std::string& text);
  // A diagnostic line at the top level.
  void Note(const std::string& text);

 private:
  void Line(const std::string& text);
  void Result(bool ok, size_t number, const std::string& name, const std::string& directive, const std::string& text);

  ReportFile& m_out;
  bool m_in_row = false;
};
