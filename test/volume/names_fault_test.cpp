// "rename", "filename", "directory" and "cluster" each fail on the faultfs
// fault it exists to find, with its own lines, "Test failure" and status
// 255, and pass on the same filesystem without a fault.

#include "fault_volume.h"  // first: it sets up the warnings for <regex>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace faulttest;
using testsupport::Lines;
using testsupport::ProcessResult;

namespace {

const std::string kTooLongMessage = "File name too long (36)";
const std::string kInvalidMessage = "Invalid argument (22)";
const std::vector<char> kForbidden{'?', '|', '*', ':', '<', '>'};

// The first `length` characters of the tool's name pattern.
std::string Pattern(size_t length) {
  std::string pattern;
  for (int round = 0; round < 5; ++round)
    pattern += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return pattern.substr(0, length);
}

// The filename test's expected lines: whether the 256-byte name is refused,
// and which forbidden characters are.
std::vector<std::string> FilenameLines(const FaultVolume& volume, bool long_refused,
                                       const std::string& accepted_chars) {
  std::vector<std::string> lines{"Check filename limits"};
  lines.push_back(long_refused ? "Filename size limit test passed: " + volume.Runtests() +
                                     Pattern(256) + ": " + kTooLongMessage
                               : "Filename size limit test failed, 256 byte name not allowed");
  for (char c : kForbidden) {
    if (accepted_chars.find(c) != std::string::npos)
      lines.push_back(std::string("Filename name test failed, ") + c + " not allowed");
    else
      lines.push_back("Filename name test passed: " + volume.Runtests() + std::string(4, c) +
                      ": " + kInvalidMessage);
  }
  if (!long_refused || !accepted_chars.empty()) lines.push_back("Test failure");
  return lines;
}

bool IsEmptyDirectory(const std::string& path) {
  return std::filesystem::is_directory(path) && std::filesystem::is_empty(path);
}

std::vector<std::string> ClusterLines() {
  std::vector<std::string> lines{"Cluster allocation test", "Create files..."};
  for (int pass = 0; pass < 10; ++pass) lines.push_back("Append to files " + std::to_string(pass));
  lines.push_back("Verify files");
  return lines;
}

}  // namespace

TEST(RenameOnFaultFs, PassesWhenOverLongNamesAreRefused) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options(""));
  ProcessResult r = volume.Run("rename");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), std::vector<std::string>({"Rename test",
                                                     "Rename test success: " + kTooLongMessage,
                                                     "Rename test success: " + kTooLongMessage}));
  EXPECT_EQ(std::filesystem::file_size(volume.Runtests() + "original_file"), 98208u);
  EXPECT_FALSE(std::filesystem::exists(volume.Runtests() + "existing_target_file"));
}

TEST(RenameOnFaultFs, FailsWhenRenamesAcceptOverLongNames) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("rename-long"));
  ProcessResult r = volume.Run("rename");
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err), std::vector<std::string>({"Rename test", "Rename test to too long failed",
                                                     "Rename test from too long failed",
                                                     "Test failure"}));
  // The file went to the 260-character name and came back as "target_file".
  EXPECT_EQ(std::filesystem::file_size(volume.Runtests() + "target_file"), 98208u);
  EXPECT_FALSE(std::filesystem::exists(volume.Runtests() + "original_file"));
}

TEST(FilenameOnFaultFs, PassesWhenExfatNameRulesHold) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options(""));
  ProcessResult r = volume.Run("filename");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), FilenameLines(volume, true, ""));
  EXPECT_TRUE(IsEmptyDirectory(volume.Runtests()));
}

TEST(FilenameOnFaultFs, FailsWhenA256ByteNameIsAccepted) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("long-names"));
  ProcessResult r = volume.Run("filename");
  EXPECT_EQ(r.exit_status, 255);
  // All six characters refused still cannot make up for the long name.
  EXPECT_EQ(Lines(r.err), FilenameLines(volume, false, ""));
  EXPECT_TRUE(IsEmptyDirectory(volume.Runtests()));
}

TEST(FilenameOnFaultFs, FailsWhenForbiddenCharactersAreAccepted) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("bad-chars"));
  ProcessResult r = volume.Run("filename");
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err), FilenameLines(volume, true, "?|*:<>"));
  EXPECT_TRUE(IsEmptyDirectory(volume.Runtests()));
}

TEST(FilenameOnFaultFs, FailsWhenOnlyTheColonIsAccepted) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("bad-chars=:"));
  ProcessResult r = volume.Run("filename");
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err), FilenameLines(volume, true, ":"));
  EXPECT_TRUE(IsEmptyDirectory(volume.Runtests()));  // "::::" was removed again
}

TEST(DirectoryOnFaultFs, PassesWhenEveryEntryStays) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options(""));
  ProcessResult r = volume.Run("directory");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err),
            std::vector<std::string>({"Creating 1000 test files", "Deleting 1000 test files",
                                      "Re-creating 1000 test files",
                                      "Directory structure test success"}));
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(volume.Runtests()))
    ++files;
  EXPECT_EQ(files, 1000u);
}

TEST(DirectoryOnFaultFs, FailsWhenTheDirectoryLosesAnEntry) {
  QVEXFAT_REQUIRE_FUSE();
  testsupport::FaultFsOptions options = Options("lose-entry");
  options.lose_after = 200;  // the file with index 199 is lost
  FaultVolume volume(options);
  ProcessResult r = volume.Run("directory");
  EXPECT_EQ(r.exit_status, 255);
  ExpectLinesMatch(Lines(r.err),
                   {"Creating 1000 test files", "Deleting 1000 test files",
                    Literal("Directory structure test failed: Failed to stat " + volume.Runtests()) +
                        NamePatternName("199"),
                    "Test failure"});
  // Files 0 to 198 were checked and removed; the rest stay unverified.
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(volume.Runtests()))
    ++files;
  EXPECT_EQ(files, 800u);
}

TEST(ClusterOnFaultFs, PassesWhenFilesKeepTheirOwnClusters) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options(""));
  ProcessResult r = volume.Run("cluster");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), Concat(ClusterLines(), {"Cluster allocation test success"}));
}

TEST(ClusterOnFaultFs, FailsWhenOneFilesDataLandsInAnother) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("shared-cluster"));
  ProcessResult r = volume.Run("cluster");
  EXPECT_EQ(r.exit_status, 255);
  ExpectLinesMatch(Lines(r.err),
                   Concat([] {
                     std::vector<std::string> escaped;
                     for (const auto& line : ClusterLines()) escaped.push_back(Literal(line));
                     return escaped;
                   }(),
                          {"Cluster allocation test failed: Data compare failed at [0-9]+: "
                           "[0-9a-f]{2} vs [0-9a-f]{2}",
                           "Test failure"}));
}
