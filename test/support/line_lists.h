#pragma once

// Lists of expected output lines (without line ends) and the text they make.

#include <string>
#include <vector>

namespace testsupport {

// `lines` followed by `more`.
inline std::vector<std::string> Concat(std::vector<std::string> lines,
                                       const std::vector<std::string>& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

// Every line with its "\n", as a program prints them.
inline std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

}  // namespace testsupport
