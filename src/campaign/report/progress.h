#pragma once

#include <chrono>
#include <cstddef>
#include <string>

// Progress on standard error: which row and step, how many rows are left,
// each row's verdict and time as it ends, and a word every 30 s while a
// step waits on a program.
class Progress {
 public:
  explicit Progress(size_t rows) : m_rows(rows) {}

  void BeginRow(const std::string& name);
  // "[3/19, 16 left] upcase: check"
  void Step(const std::string& step);
  // "[3/19, 16 left] upcase: check, waiting for fsck.exfat for 60 s"
  void Waiting(const std::string& what, std::chrono::seconds so_far) const;
  // "[3/19, 16 left] upcase: not ok (TIMEOUT) in 612 s"
  void EndRow(const std::string& verdict) const;

 private:
  std::string Prefix() const;

  size_t m_rows;
  size_t m_row = 0;
  std::string m_name;
  std::string m_step;
  std::chrono::steady_clock::time_point m_started;
};
