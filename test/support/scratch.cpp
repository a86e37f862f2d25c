#include "scratch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#ifndef QVEXFAT_SCRATCH_ROOT
#error "QVEXFAT_SCRATCH_ROOT must name the scratch area"
#endif

namespace testsupport {

const std::string& ScratchRoot() {
  static const std::string root = QVEXFAT_SCRATCH_ROOT;
  return root;
}

ScratchDir::ScratchDir() {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "scratch";
  for (char& c : name)
    if (c == '/') c = '_';
  m_path = ScratchRoot() + "/" + name + "." + std::to_string(getpid());
  std::filesystem::remove_all(m_path);
  std::filesystem::create_directories(m_path);
}

ScratchDir::~ScratchDir() {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  if (info && info->result()->Failed()) return;
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

}  // namespace testsupport
