#pragma once

#include <string>
#include <vector>

#include "campaign/report/judge.h"
#include "campaign/report/report_file.h"
#include "campaign/trial/observation.h"

// Writes the campaign's results in KTAP version 1, the kernel's test output
// format: a row is a test, its steps an indented subtest; field rows are
// subtests of a test for their structure. Each line is written as it
// comes, so that a run that dies keeps what it saw.
class KtapWriter {
 public:
  explicit KtapWriter(ReportFile& out) : m_out(out) {}

  // The version line, `header` as diagnostic lines, the plan.
  void Begin(const std::vector<std::string>& header, size_t rows);

  // A subtest's header and plan, one level in.
  void BeginSubtest(const std::string& name, size_t tests);
  // A step's evidence, why it is not ok, and its result line.
  void Step(size_t number, const StepObservation& step, const Verdict& verdict);
  // A step that did not end: "not ok 3 read # ERROR interrupted by SIGINT".
  void StepCutShort(size_t number, const std::string& name, const std::string& why);
  void StepNotRun(size_t number, const std::string& name, const std::string& why);
  // The subtest's result line, one level out; `text` follows its directive.
  void EndSubtest(size_t number, const std::string& name, const Verdict& verdict, const std::string& text);
  // A result with no subtest: a row not run.
  void Result(size_t number, const std::string& name, const Verdict& verdict, const std::string& text);
  // A diagnostic line at the level in progress.
  void Note(const std::string& text);

 private:
  void Line(const std::string& text);
  void ResultLine(bool ok, size_t number, const std::string& name, const std::string& directive, const std::string& text);

  ReportFile& m_out;
  size_t m_depth = 0;
};
