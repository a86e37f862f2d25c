#include "campaign/trial/checker.h"

namespace {

constexpr const char* kBanner = "exfatprogs version";
// fsck's exit statuses: 4 errors left uncorrected, 8 an operational error.
constexpr int kOperationalError = 8;

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

std::string CheckerRun::FirstLine() const {
  const std::vector<std::string> lines = run.Lines();
  for (const std::string& line : lines)
    if (line.rfind("ERROR:", 0) == 0) return line;
  for (const std::string& line : lines)
    if (!line.empty() && line.rfind(kBanner, 0) != 0) return line;
  return "(nothing printed)";
}

std::vector<std::string> CheckerRun::Transcript() const {
  std::vector<std::string> lines;
  for (const std::string& line : run.Lines()) lines.push_back(label + ": " + line);
  lines.push_back(label + ": " + run.end.Describe());
  return lines;
}

std::string CheckerRun::Verdict() const {
  if (Clean()) return "clean";
  if (run.end.kind == Ending::Kind::kExited && run.end.code > 0 && run.end.code < kOperationalError) return "damage";
  return "no verdict (" + run.end.Describe() + ")";
}

CheckerRun RunChecker(const std::string& checker, const std::string& mode, const std::string& device,
                      std::chrono::seconds limit) {
  return {BaseName(checker) + " " + mode, RunProgram({checker, mode, device}, limit)};
}

std::string CheckerVersion(const std::string& checker) {
  const std::vector<std::string> lines = RunProgram({checker, "-V"}, std::chrono::seconds(60)).Lines();
  for (const std::string& line : lines)
    if (line.rfind(kBanner, 0) == 0) return line;
  return lines.empty() ? "unknown version" : lines.front();
}

void Record(const CheckerRun& checker, Purpose purpose, StepObservation& step) {
  for (const std::string& line : checker.Transcript()) step.lines.push_back(line);
  step.runs.push_back({purpose, checker.label, checker.run.end});
}
