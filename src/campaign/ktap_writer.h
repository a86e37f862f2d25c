#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "campaign/results.h"

// Writes the campaign's results in KTAP version 1, the kernel's test output
// format: a row is a test, its steps an indented subtest. Each row is
// written, and flushed, as soon as it is done.
class KtapWriter {
 public:
  // The version line, `header` as diagnostic lines, the plan.
  KtapWriter(FILE* out, const std::vector<std::string>& header, size_t rows);

  void Row(const RowResult& row);
  // A diagnostic line at the top level.
  void Note(const std::string& text);

 private:
  void Line(const std::string& indent, const std::string& text);

  FILE* m_out;
  size_t m_number = 0;
};
