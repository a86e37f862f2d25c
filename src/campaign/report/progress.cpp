#include "campaign/report/progress.h"

#include <fmt/format.h>

#include <cstdio>

void Progress::BeginRow(const std::string& name) {
  ++m_row;
  m_name = name;
  m_started = std::chrono::steady_clock::now();
}

std::string Progress::Prefix() const {
  return fmt::format("[{}/{}, {} left] {}: ", m_row, m_rows, m_rows - m_row, m_name);
}

void Progress::Step(const std::string& step) {
  m_step = step;
  fprintf(stderr, "%s%s\n", Prefix().c_str(), step.c_str());
}

void Progress::Waiting(const std::string& what, std::chrono::seconds so_far) const {
  fprintf(stderr, "%s%s, waiting for %s for %lld s\n", Prefix().c_str(), m_step.c_str(), what.c_str(),
          static_cast<long long>(so_far.count()));
}

void Progress::EndRow(const std::string& verdict) const {
  const auto taken = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_started);
  fprintf(stderr, "%s%s in %lld s\n", Prefix().c_str(), verdict.c_str(), static_cast<long long>(taken.count()));
}
