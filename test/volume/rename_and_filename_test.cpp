// "rename" and "filename" run by the built tool on exFAT volumes mounted
// through exfat-fuse, which refuses what these tests expect refused.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "exfat_image.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;
using testsupport::Lines;
using testsupport::MakeExfatImage;
using testsupport::MountedVolume;
using testsupport::ProcessResult;
using testsupport::ReadFileBytes;
using testsupport::RunTool;
using testsupport::ScratchDir;

std::string Pattern(size_t length) {
  std::string pattern;
  for (int i = 0; i < 5; ++i) pattern += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return pattern.substr(0, length);
}

std::vector<std::string> Names(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.push_back(entry.path().filename());
  return names;
}

class NamesOnExfat : public ::testing::Test {
 protected:
  void SetUp() override {
    QVEXFAT_REQUIRE_MOUNTS();
    MakeExfatImage(m_scratch / "volume.img", 16 << 20, 4096);
    m_volume.emplace(m_scratch / "volume.img", m_scratch / "mnt");
  }
  std::string Volume() const { return m_volume->MountPoint(); }

  ScratchDir m_scratch;
  std::optional<MountedVolume> m_volume;
};

TEST_F(NamesOnExfat, RenamePassesAndLeavesTheOriginalFile) {
  for (int run = 0; run < 2; ++run) {
    ProcessResult r = RunTool({"-v", Volume(), "-a", "rename"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(Lines(r.err), std::vector<std::string>({"Rename test",
                                                      "Rename test success: File name too long (36)",
                                                      "Rename test success: File name too long (36)"}));
  }
  // Only the source file is left, holding its own 98208 bytes (the existing
  // target's 13299 bytes were replaced by it and renamed back).
  const std::string runtests = Volume() + "/runtests/";
  EXPECT_EQ(Names(runtests), std::vector<std::string>({"original_file"}));
  const std::vector<uint8_t> bytes = ReadFileBytes(runtests + "original_file");
  ASSERT_EQ(bytes.size(), 98208u);
  for (size_t k = 3100; k < bytes.size(); ++k) ASSERT_EQ(bytes[k], bytes[k - 3100]) << k;
}

TEST_F(NamesOnExfat, FilenamePassesAndLeavesNothing) {
  const std::string runtests = Volume() + "//runtests/";
  ProcessResult r = RunTool({"-v", Volume() + "/", "-a", "filename"});
  EXPECT_EQ(r.exit_status, 0);
  std::vector<std::string> expected{
      "Check filename limits",
      "Filename size limit test passed: " + runtests + Pattern(256) + ": File name too long (36)"};
  for (const char* name : {"????", "||||", "****", "::::", "<<<<", ">>>>"})
    expected.push_back("Filename name test passed: " + runtests + name +
                       ": No such file or directory (2)");
  EXPECT_EQ(Lines(r.err), expected);
  EXPECT_TRUE(Names(runtests).empty());
}

}  // namespace
