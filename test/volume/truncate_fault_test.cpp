// "truncate", "truncatebug31031" and "diskspace" each fail on the faultfs
// fault it exists to find, with its own lines, "Test failure" and status
// 255. (Their passes are shown on exfat-fuse, line for line.)

#include "fault_volume.h"  // first: it sets up the warnings for <regex>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "exfat_image.h"
#include "line_lists.h"
#include "volume_expect.h"

using namespace faulttest;
using namespace volumetest;
using testsupport::Concat;
using testsupport::Lines;
using testsupport::ProcessResult;

TEST(TruncateOnFaultFs, FailsWhenGrowthShowsStaleData) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("stale-extend"));
  ProcessResult r = volume.Run("truncate");
  EXPECT_EQ(r.exit_status, 255);
  // All 23 rounds run and show the stale half before the verdict.
  EXPECT_EQ(Lines(r.err),
            Concat(Concat({"Truncate test"}, TruncateRounds(false)),
                   {"Truncate test failed: Failed truncate zero test", "Test failure"}));
  EXPECT_TRUE(std::filesystem::exists(volume.Runtests() + "truncfile"));
}

TEST(TruncateOnFaultFs, FailsWhenTheSizeAfterTruncationIsWrong) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("wrong-truncate-size"));
  ProcessResult r = volume.Run("truncate");
  EXPECT_EQ(r.exit_status, 255);
  // The first round cuts 2 bytes to 1; the volume still says 2. The last
  // field is the round size, as the message always shows it.
  EXPECT_EQ(Lines(r.err),
            std::vector<std::string>({"Truncate test",
                                      "Truncate test failed: Truncate fstat64 of " +
                                          volume.Runtests() + "truncfile incorrect: 2 vs 2",
                                      "Test failure"}));
}

TEST(DiskSpaceOnFaultFs, FailsWhenWritesNeverRunOutOfSpace) {
  QVEXFAT_REQUIRE_FUSE();
  FaultVolume volume(Options("no-enospc", 8 << 20));
  const uint64_t free = volume.FreeClusters() - 1;
  ProcessResult r = volume.Run("diskspace");
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err),
            std::vector<std::string>(
                {"Disk space test", std::to_string(free) + " free clusters",
                 "Cluster length 4096 bytes", "Cluster length 4096 bytes", "DiskSpaceTest failed",
                 "Create a lot of files to check that directory cluster allocation fails correctly",
                 "DiskSpaceTest failed", "Test failure"}));
  // (4096 / 32) * 4 empty files beside the filler.
  EXPECT_EQ(EntryCount(volume.Runtests()), 512u + 1u);
}

class TruncateBug31031OnFaultFs : public ::testing::TestWithParam<uint32_t> {};

TEST_P(TruncateBug31031OnFaultFs, FailsWhenATruncationFreesAnotherFilesCluster) {
  QVEXFAT_REQUIRE_FUSE();
  const uint64_t cluster = GetParam();
  FaultVolume volume(Options("truncate-frees-wrong", 256ull << 20, GetParam()));
  ProcessResult r = volume.Run("truncatebug31031");
  EXPECT_EQ(r.exit_status, 255);
  const std::vector<std::string> lines = Lines(r.err);
  ASSERT_EQ(lines.size(), 8u) << r.err;
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 6), Bug31031Lines(cluster));
  EXPECT_EQ(lines[7], "Test failure");

  // file2 (the name ending in "1") is checked first and differs at the start
  // of its cluster 15, which the second truncation zeroed; the expected byte
  // is the one a period (1 KiB) earlier.
  std::string file2;
  for (const auto& entry : std::filesystem::directory_iterator(volume.Runtests()))
    if (entry.path().string().back() == '1') file2 = entry.path();
  ASSERT_FALSE(file2.empty());
  std::smatch match;
  ASSERT_TRUE(std::regex_match(lines[6], match,
                               std::regex("Bug 31031 test failed: Data compare failed at "
                                          "([0-9]+): ([0-9a-f]{2}) vs 00")))
      << lines[6];
  const uint64_t offset = std::stoull(match[1]);
  EXPECT_GE(offset, 15 * cluster);
  EXPECT_LT(offset, 15 * cluster + 1024);
  const std::vector<uint8_t> expected = testsupport::ReadBytes(file2, offset - 1024, 1);
  const std::vector<uint8_t> found = testsupport::ReadBytes(file2, offset, 1);
  char hex[3];
  snprintf(hex, sizeof hex, "%02x", expected[0]);
  EXPECT_EQ(match[2].str(), hex);
  EXPECT_EQ(found[0], 0);
  EXPECT_EQ(std::filesystem::file_size(file2), 30 * cluster);
}

INSTANTIATE_TEST_SUITE_P(Clusters, TruncateBug31031OnFaultFs, ::testing::Values(4096u, 32768u));
