#include "campaign/checker.h"

namespace {

constexpr std::chrono::seconds kCheckerLimit{600};
constexpr const char* kBanner = "exfatprogs version";

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

std::string CheckerRun::FirstLine() const {
  const std::vector<std::string> lines = outcome.Lines();
  for (const std::string& line : lines)
    if (line.rfind("ERROR:", 0) == 0) return line;
  for (const std::string& line : lines)
    if (!line.empty() && line.rfind(kBanner, 0) != 0) return line;
  return "(nothing printed)";
}

std::vector<std::string> CheckerRun::Transcript() const {
  std::vector<std::string> lines;
  for (const std::string& line : outcome.Lines()) lines.push_back(label + ": " + line);
  lines.push_back(label + ": " + outcome.Describe());
  return lines;
}

CheckerRun RunChecker(const std::string& checker, const std::string& mode, const std::string& device) {
  return {BaseName(checker) + " " + mode, RunProgram({checker, mode, device}, kCheckerLimit)};
}

std::string CheckerVersion(const std::string& checker) {
  const std::vector<std::string> lines = RunProgram({checker, "-V"}, std::chrono::seconds(60)).Lines();
  for (const std::string& line : lines)
    if (line.rfind(kBanner, 0) == 0) return line;
  return lines.empty() ? "unknown version" : lines.front();
}
