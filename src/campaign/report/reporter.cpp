#include "campaign/report/reporter.h"

#include <algorithm>

#include <fmt/format.h>

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

// The structure a field row belongs to; "" for the other rows.
std::string GroupOf(const Row& row) { return row.fuzz ? row.fuzz->field->structure : ""; }

}  // namespace

void Reporter::Begin(const std::vector<std::string>& header) {
  size_t tests = 0;
  for (size_t i = 0; i < m_rows.size(); ++i)
    if (GroupOf(*m_rows[i]).empty() || i == 0 || GroupOf(*m_rows[i]) != GroupOf(*m_rows[i - 1])) ++tests;
  m_ktap.Begin(header, tests);
}

void Reporter::EnterGroupOf(const Row& row) {
  const std::string group = GroupOf(row);
  if (group == m_group) return;
  EndGroup();
  if (group.empty()) return;
  m_group = group;
  m_group_first = m_records.size();
  m_ktap.BeginSubtest(group, std::count_if(m_rows.begin(), m_rows.end(),
                                           [&](const Row* each) { return GroupOf(*each) == group; }));
}

void Reporter::EndGroup() {
  if (m_group.empty()) return;
  std::vector<Verdict> verdicts;
  size_t not_ok = 0;
  for (size_t i = m_group_first; i < m_records.size(); ++i) {
    verdicts.push_back(m_records[i].verdict);
    not_ok += m_records[i].verdict.ok ? 0 : 1;
  }
  const Verdict verdict = JudgeGroup(verdicts);
  m_ktap.EndSubtest(++m_top_level, m_group, verdict,
                    verdict.directive == "SKIP" ? "every row skipped"
                    : not_ok == 0 ? fmt::format("{} {}", verdicts.size(), verdicts.size() == 1 ? "row" : "rows")
                                                : fmt::format("{} of {} rows not ok", not_ok, verdicts.size()));
  m_group.clear();
}

void Reporter::End() { EndGroup(); }

size_t Reporter::Number() { return m_group.empty() ? ++m_top_level : m_records.size() - m_group_first; }

void Reporter::BeginRow(const Row& row) {
  EnterGroupOf(row);
  m_progress.BeginRow(row.name);
  m_records.push_back({&row, {}, {}, {}, ""});
  m_plan = StepNames(row);
  m_ktap.BeginSubtest(row.name, m_plan.size());
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
  m_ktap.EndSubtest(Number(), record.row->name, record.verdict, record.said);
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
  m_ktap.EndSubtest(Number(), record.row->name, record.verdict, record.said);
  m_progress.EndRow(InAWord(record.verdict));
}

void Reporter::NotRun(const Row& row, const std::string& why) {
  EnterGroupOf(row);
  m_records.push_back({&row, {}, {}, {true, "SKIP", {}}, "not run: " + why});
  m_ktap.Result(Number(), row.name, m_records.back().verdict, m_records.back().said);
}

bool Reporter::AllOk() const {
  for (const RowRecord& record : m_records)
    if (!record.verdict.ok) return false;
  return true;
}
