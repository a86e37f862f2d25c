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
class Reporter : public RowListener {
 public:
  Reporter(KtapWriter& ktap, Progress& progress) : m_ktap(ktap), m_progress(progress) {}

  void BeginRow(const Row& row);
  void StepBegins(const std::string& name) override;
  void StepEnded(StepObservation step) override;
  void EndRow();
  // The row in progress did not finish: the step under way is an ERROR,
  // the steps after it are not run, and so is the row.
  void AbandonRow(const std::string& why);
  void NotRun(const Row& row, const std::string& why);

  const std::vector<RowRecord>& Records() const { return m_records; }
  bool AllOk() const;

 private:
  KtapWriter& m_ktap;
  Progress& m_progress;
  std::vector<RowRecord> m_records;
  std::vector<std::string> m_plan;  // the steps of the row in progress
};
