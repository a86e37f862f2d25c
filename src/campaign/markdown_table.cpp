#include "campaign/markdown_table.h"

#include <algorithm>

#include "campaign/kernel_log.h"

namespace {

constexpr const char* kNotRun = "—";

std::string Cell(const std::string& text) {
  std::string cell;
  for (char c : text) cell += c == '|' ? std::string("\\|") : std::string(1, c);
  return cell.empty() ? kNotRun : cell;
}

std::string StepCell(const RowResult& row, const std::string& name) {
  for (const StepResult& step : row.steps)
    if (step.name == name) return Cell(step.cell);
  return kNotRun;
}

// Every distinct message of the row in short, bug reports in bold.
std::string KernelCell(const RowResult& row) {
  std::vector<std::string> all = row.kernel;
  for (const StepResult& step : row.steps) all.insert(all.end(), step.kernel.begin(), step.kernel.end());
  std::vector<std::string> seen;
  std::string cell;
  for (const std::string& message : all) {
    std::string text = ShortKernelMessage(message);
    if (std::find(seen.begin(), seen.end(), text) != seen.end()) continue;
    seen.push_back(text);
    if (IsKernelBugReport(message)) text = "**" + text + "**";
    cell += (cell.empty() ? "" : "; ") + text;
  }
  return cell.empty() ? kNotRun : Cell(cell);
}

std::string Verdict(const RowResult& row) {
  if (!row.error.empty()) return Cell("error: " + row.error);
  if (!row.skip.empty()) return Cell("skipped: " + row.skip);
  return row.Ok() ? "ok" : "**not ok**";
}

std::string Line(const std::vector<std::string>& cells) {
  std::string line = "|";
  for (const std::string& cell : cells) line += " " + cell + " |";
  return line + "\n";
}

}  // namespace

std::string MarkdownTables(const std::vector<RowResult>& rows) {
  std::string damage, volume;
  for (const RowResult& row : rows) {
    const std::string name = "`" + row.name + "`";
    if (row.damage) {
      damage += Line({name, StepCell(row, "check"), StepCell(row, "mount"), StepCell(row, "read"),
                      StepCell(row, "write"), StepCell(row, "repair"), KernelCell(row), Verdict(row)});
    } else {
      volume += Line({name, StepCell(row, "run"), StepCell(row, "check"), KernelCell(row), Verdict(row)});
    }
  }
  std::string tables;
  if (!damage.empty())
    tables += "| damage | caught? | mount | read | write | repair | kernel log | verdict |\n"
              "|---|---|---|---|---|---|---|---|\n" + damage;
  if (!damage.empty() && !volume.empty()) tables += "\n";
  if (!volume.empty())
    tables += "| test | run | fsck.exfat -n after | kernel log | verdict |\n"
              "|---|---|---|---|---|\n" + volume;
  return tables;
}
