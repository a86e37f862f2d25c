#include "campaign/report/field_matrix.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

namespace {

const char* kLegend =
    "Each cell: the checker, then the driver. `c` the checker caught the change, `m` it missed it; `r` the "
    "driver refused the volume, `o` took it read-only, `t` took it. **H** a hazard, **T** a time limit passed, "
    "**E** the row could not be carried out, `·` the verb left the bytes as they were.\n";

std::string StepCell(const RowRecord& row, const std::string& name) {
  for (const StepObservation& step : row.steps)
    if (step.name == name) return step.cell;
  return "";
}

// "cr", "mt", "**H**".
std::string Code(const RowRecord& row) {
  if (row.verdict.directive == "SKIP") return "·";
  if (!row.verdict.ok) {
    if (row.verdict.directive == "TIMEOUT") return "**T**";
    if (row.verdict.directive == "ERROR") return "**E**";
    return "**H**";
  }
  const std::string mount = StepCell(row, "mount");
  const char driver = mount.rfind("refused", 0) == 0 ? 'r' : mount == "taken read-only" ? 'o' : 't';
  return fmt::format("{}{}", StepCell(row, "check") == "yes" ? 'c' : 'm', driver);
}

// Why a row is listed under the matrices, or "".
std::string Remark(const RowRecord& row) {
  if (!row.verdict.ok) {
    std::string reasons;
    for (const Verdict& step : row.verdicts)
      for (const std::string& reason : step.reasons) reasons += (reasons.empty() ? "" : "; ") + reason;
    return fmt::format("not ok{}: {}", row.verdict.directive.empty() ? "" : " (" + row.verdict.directive + ")",
                       reasons.empty() ? row.said : reasons);
  }
  const std::string code = Code(row);
  if (code == "mr") return "the checker passes what the driver refuses: " + StepCell(row, "mount");
  if (code == "ct" && StepCell(row, "read").find("differs") == std::string::npos)
    return "the driver takes what the checker calls damaged: " + StepCell(row, "check");
  return "";
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) escaped += c == '|' ? std::string("\\|") : std::string(1, c);
  return escaped;
}

}  // namespace

std::string FieldMatrices(const std::vector<RowRecord>& rows) {
  // Per structure, a line per field and instance, a column per verb.
  std::vector<std::string> structures;
  std::map<std::string, std::vector<std::string>> lines_of;  // structure -> "Field instance", in order
  std::map<std::string, std::map<std::string, std::map<Verb, std::string>>> cells;
  std::map<std::string, std::vector<Verb>> verbs_of;
  std::string remarks;
  for (const RowRecord& row : rows) {
    const FieldFuzz* fuzz = row.row->fuzz;
    if (!fuzz) continue;
    const std::string& structure = fuzz->field->structure;
    const std::string line = fmt::format("{}{}{}", fuzz->field->name, fuzz->instance.empty() ? "" : " ", fuzz->instance);
    if (std::find(structures.begin(), structures.end(), structure) == structures.end()) structures.push_back(structure);
    std::vector<std::string>& lines = lines_of[structure];
    if (std::find(lines.begin(), lines.end(), line) == lines.end()) lines.push_back(line);
    std::vector<Verb>& verbs = verbs_of[structure];
    if (std::find(verbs.begin(), verbs.end(), fuzz->verb) == verbs.end()) verbs.push_back(fuzz->verb);
    cells[structure][line][fuzz->verb] = Code(row);
    if (const std::string remark = Remark(row); !remark.empty())
      remarks += fmt::format("- `{}`: {}\n", row.row->name, Escaped(remark));
  }
  if (structures.empty()) return "";
  std::string text = kLegend;
  for (const std::string& structure : structures) {
    std::vector<Verb>& verbs = verbs_of[structure];
    std::sort(verbs.begin(), verbs.end());
    text += fmt::format("\n| {} |", structure);
    for (const Verb verb : verbs) text += fmt::format(" {} |", VerbName(verb));
    text += "\n|---|";
    for (size_t i = 0; i < verbs.size(); ++i) text += "---|";
    text += "\n";
    for (const std::string& line : lines_of[structure]) {
      text += fmt::format("| {} |", line);
      for (const Verb verb : verbs) {
        const auto found = cells[structure][line].find(verb);
        text += fmt::format(" {} |", found == cells[structure][line].end() ? "—" : found->second);
      }
      text += "\n";
    }
  }
  if (!remarks.empty()) text += "\nHazards and disagreements:\n\n" + remarks;
  return text;
}
