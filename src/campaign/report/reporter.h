#pragma once

#include <string>
#include <vector>

#include "campaign/report/judge.h"
#include "campaign/report/ktap.h"
#include "campaign/report/progress.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"

// A row as it was reported: its steps, their verdicts and its own.
struct RowRecord {
  const Row* row;
  std::vector<StepObservation> steps;
  std::vector<Verdict> verdicts;
  Verdict verdict;
  std::string said;  // the row's result line's text
};

// Judges each step as it ends and reports it at once: in KTAP, on the
// progress line and in the records the Markdown tables are made from.
// Field rows are reported a structure at a time, as subtests of a test
// named after it ("boot", "stream"), which is ok when all its rows are.
class Reporter : public RowListener {
 public:
  Reporter(KtapWriter& ktap, Progress& progress, const std::vector<const Row*>& rows)
      : m_ktap(ktap), m_progress(progress), m_rows(rows) {}

  // The KTAP's version line, `header` and plan.
  void Begin(const std::vector<std::string>& header);
  void BeginRow(const Row& row);
  void StepBegins(const std::string& name) override;
  void StepEnded(StepObservation step) override;
  void EndRow();
  // The row in progress did not finish: the step under way is an ERROR,
  // the steps after it are not run, and so is the row.
  void AbandonRow(const std::string& why);
  void NotRun(const Row& row, const std::string& why);
  // After the last row: its structure's test ends.
  void End();

  const std::vector<RowRecord>& Records() const { return m_records; }
  bool AllOk() const;

 private:
  void EnterGroupOf(const Row& row);
  void EndGroup();
  // The row's number in its structure's test, or at the top level.
  size_t Number();

  KtapWriter& m_ktap;
  Progress& m_progress;
  const std::vector<const Row*>& m_rows;
  std::vector<RowRecord> m_records;
  std::vector<std::string> m_plan;  // the steps of the row in progress
  size_t m_top_level = 0;           // tests ended at the top level
  std::string m_group;              // the structure whose rows are being reported
  size_t m_group_first = 0;         // its first row's record
};
