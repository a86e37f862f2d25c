#include "campaign/report/reporter.h"

namespace {

// "in write, repair": the steps that made a row not ok.
// "ok", "not ok", "not ok (TIMEOUT)", "skipped".
std::string InAWord(const Verdict& verdict) {
  if (verdict.directive == "SKIP") return "skipped";
  const std::string word = verdict.ok ? "ok" : "not ok";
  return verdict.directive.empty() ? word : word + " (" + verdict.directive + ")";
}

std::string FailedSteps(const RowRecord& record) {
  std::string names;
  for (size_t i = 0; i < record.verdicts.size(); ++i)
    if (!record.verdicts[i].ok) names += (names.empty() ? "in " : ", ") + record.steps[i].name;
  return names;
}

}  // namespace

void Reporter::BeginRow(const Row& row) {
  m_progress.BeginRow(row.name);
  m_records.push_back({&row, {}, {}, {}, ""});
  m_plan = StepNames(row);
  m_ktap.BeginRow(row.name, m_plan.size());
}

void Reporter::StepBegins(const std::string& name) {
  m_progress.Step(name);
}

void Reporter::StepEnded(StepObservation step) {
  RowRecord& record = m_records.back();
  const Verdict verdict = JudgeStep(step);
  m_ktap.Step(record.steps.size() + 1, step, verdict);
  record.steps.push_back(std::move(step));
  record.verdicts.push_back(verdict);
}

void Reporter::EndRow() {
  RowRecord& record = m_records.back();
  record.verdict = JudgeRow(record.verdicts);
  if (record.verdict.directive == "SKIP") record.said = record.steps.front().skipped;
  else if (!record.verdict.ok) record.said = FailedSteps(record);
  m_ktap.EndRow(m_records.size(), record.row->name, record.verdict, record.said);
  m_progress.EndRow(InAWord(record.verdict));
}

void Reporter::AbandonRow(const std::string& why) {
  RowRecord& record = m_records.back();
  size_t number = record.steps.size() + 1;
  if (number <= m_plan.size()) {
    m_ktap.StepCutShort(number, m_plan[number - 1], why);
    while (++number <= m_plan.size()) m_ktap.StepNotRun(number, m_plan[number - 1], "not run: " + why);
  }
  record.verdict = {false, "ERROR", {why}};
  record.said = why;
  m_ktap.EndRow(m_records.size(), record.row->name, record.verdict, record.said);
  m_progress.EndRow(InAWord(record.verdict));
}

void Reporter::NotRun(const Row& row, const std::string& why) {
  m_records.push_back({&row, {}, {}, {true, "SKIP", {}}, "not run: " + why});
  m_ktap.EndRow(m_records.size(), row.name, m_records.back().verdict, m_records.back().said);
}

bool Reporter::AllOk() const {
  for (const RowRecord& record : m_records)
    if (!record.verdict.ok) return false;
  return true;
}
