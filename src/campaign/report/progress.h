#pragma once

#include <cstddef>
#include <string>

// Progress on standard error: which row and step, and how many rows are left.
class Progress {
 public:
  explicit Progress(size_t rows) : m_rows(rows) {}

  void BeginRow(const std::string& name);
  // "[3/19, 16 left] upcase: check"
  void Step(const std::string& step) const;

 private:
  size_t m_rows;
  size_t m_row = 0;
  std::string m_name;
};
