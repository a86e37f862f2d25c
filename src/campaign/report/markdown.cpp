#include "campaign/report/markdown.h"

#include <algorithm>

#include "campaign/machine/kernel_log.h"
#include "campaign/report/field_matrix.h"

namespace {

constexpr const char* kNotRun = "—";

std::string Cell(const std::string& text) {
  std::string cell;
  for (char c : text) cell += c == '|' ? std::string("\\|") : std::string(1, c);
  return cell.empty() ? kNotRun : cell;
}

std::string StepCell(const RowRecord& row, const std::string& name) {
  for (const StepObservation& step : row.steps)
    if (step.name == name) return Cell(step.cell);
  return kNotRun;
}

// Every distinct message of the row in short, bug reports in bold.
std::string KernelCell(const RowRecord& row) {
  std::vector<std::string> seen;
  std::string cell;
  for (const StepObservation& step : row.steps) {
    for (const KernelMessage& message : step.kernel.messages) {
      std::string text = ShortKernelMessage(message.text);
      if (std::find(seen.begin(), seen.end(), text) != seen.end()) continue;
      seen.push_back(text);
      if (message.kind == KernelClass::kBug) text = "**" + text + "**";
      cell += (cell.empty() ? "" : "; ") + text;
    }
  }
  return cell.empty() ? kNotRun : Cell(cell);
}

std::string VerdictCell(const RowRecord& row) {
  if (row.verdict.directive == "SKIP") return Cell("skipped: " + row.said);
  if (row.verdict.ok) return "ok";
  std::string reasons;
  for (const Verdict& step : row.verdicts)
    for (const std::string& reason : step.reasons) reasons += "<br>" + reason;
  if (row.steps.empty() || reasons.empty()) reasons = "<br>" + row.said;
  return Cell("**not ok" + (row.verdict.directive.empty() ? "" : " (" + row.verdict.directive + ")") + "**" + reasons);
}

std::string Line(const std::vector<std::string>& cells) {
  std::string line = "|";
  for (const std::string& cell : cells) line += " " + cell + " |";
  return line + "\n";
}

}  // namespace

std::string MarkdownTables(const std::vector<std::string>& stack, const std::vector<RowRecord>& rows) {
  std::string damage, volume, images, power_cut;
  for (const RowRecord& row : rows) {
    const std::string name = "`" + row.row->name + "`";
    if (row.row->fuzz) continue;  // in the field matrices
    if (!row.row->image.empty()) {
      images += Line({name, StepCell(row, "check"), StepCell(row, "mount"), StepCell(row, "read"),
                      StepCell(row, "write"), StepCell(row, "repair"), KernelCell(row), VerdictCell(row)});
    } else if (!row.row->power_cut.empty()) {
      const bool torn = row.row->power_cut == kTornRow;
      power_cut += Line({name, StepCell(row, torn ? "replay" : "make"), StepCell(row, "check"), StepCell(row, "mount"),
                         StepCell(row, "read"), StepCell(row, "flushes"), StepCell(row, "repair"), KernelCell(row),
                         VerdictCell(row)});
    } else if (row.row->damage) {
      damage += Line({name, StepCell(row, "check"), StepCell(row, "mount"), StepCell(row, "read"),
                      StepCell(row, "write"), StepCell(row, "repair"), KernelCell(row), VerdictCell(row)});
    } else {
      volume += Line({name, StepCell(row, "run"), StepCell(row, "check"), KernelCell(row), VerdictCell(row)});
    }
  }
  std::vector<std::string> tables;
  if (!damage.empty())
    tables.push_back("| damage | caught? | mount | read | write | repair | kernel log | verdict |\n"
                     "|---|---|---|---|---|---|---|---|\n" + damage);
  if (!volume.empty())
    tables.push_back("| test | run | fsck.exfat -n after | kernel log | verdict |\n"
                     "|---|---|---|---|---|\n" + volume);
  if (!images.empty())
    tables.push_back("| image | fsck.exfat -n | mount | read twice | write | repair | kernel log | verdict |\n"
                     "|---|---|---|---|---|---|---|---|\n" + images);
  if (!power_cut.empty())
    tables.push_back("| power cut | replayed | fsck.exfat -n | mount | read | flush points | repair | kernel log | verdict |\n"
                     "|---|---|---|---|---|---|---|---|---|\n" + power_cut);
  if (const std::string fields = FieldMatrices(rows); !fields.empty()) tables.push_back(fields);
  std::string text;
  for (const std::string& line : stack) text += "- " + line + "\n";
  if (!stack.empty()) text += "\n";
  for (size_t i = 0; i < tables.size(); ++i) text += (i == 0 ? "" : "\n") + tables[i];
  return text;
}
