#include "campaign/report/progress.h"

#include <cstdio>

void Progress::BeginRow(const std::string& name) {
  ++m_row;
  m_name = name;
}

void Progress::Step(const std::string& step) const {
  fprintf(stderr, "[%zu/%zu, %zu left] %s: %s\n", m_row, m_rows, m_rows - m_row, m_name.c_str(), step.c_str());
}
