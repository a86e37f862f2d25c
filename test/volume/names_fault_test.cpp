// "rename", "filename", "directory" and "cluster" each fail on the faultfs
// fault it exists to find, with its own lines, "Test failure" and status
// 255. (Their passes are shown on exfat-fuse, line for line.)

#include "fault_volume.h"  // first: it sets up the warnings for <regex>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "line_lists.h"
#include "volume_expect.h"

using namespace faulttest;
using namespace volumetest;
using testsupport::Concat;
using testsupport::Lines;
using testsupport::ProcessResult;

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

TEST(FilenameOnFaultFs, FailsOnAccepted256ByteNamesOrForbiddenCharacters) {
  QVEXFAT_REQUIRE_FUSE();
  // All six characters refused still cannot make up for the long name; the
  // colon alone accepted fails the run as well (all six accepted: tmpfs).
  const struct {
    const char* fault;
    bool long_refused;
    const char* accepted;
  } cases[] = {{"long-names", false, ""}, {"bad-chars=:", true, ":"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fault);
    FaultVolume volume(Options(c.fault));
    ProcessResult r = volume.Run("filename");
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_EQ(Lines(r.err),
              FilenameLines(volume.Runtests(), c.long_refused, c.accepted, "Invalid argument (22)"));
    EXPECT_EQ(EntryCount(volume.Runtests()), 0u);  // "::::" was removed again
  }
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
  EXPECT_EQ(EntryCount(volume.Runtests()), 800u);
}

TEST(ClusterOnFaultFs, FailsWhenOneFilesDataLandsInAnother) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("shared-cluster"));
  ProcessResult r = volume.Run("cluster");
  EXPECT_EQ(r.exit_status, 255);
  std::vector<std::string> patterns;
  for (const std::string& line : ClusterLines()) patterns.push_back(Literal(line));
  ExpectLinesMatch(Lines(r.err),
                   Concat(patterns, {"Cluster allocation test failed: Data compare failed at [0-9]+: "
                                     "[0-9a-f]{2} vs [0-9a-f]{2}",
                                     "Test failure"}));
}
