// "directory" and "cluster" run by the built tool on exFAT volumes mounted
// through exfat-fuse: exact output and the files they leave.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "exfat_image.h"
#include "exfat_volume.h"
#include "line_lists.h"
#include "volume_expect.h"

namespace {

namespace fs = std::filesystem;
using namespace volumetest;
using testsupport::Concat;
using testsupport::ExfatVolume;
using testsupport::Lines;
using testsupport::ProcessResult;

// Splits a test file name into its index; the rest must be a prefix of the
// name pattern and the whole at most 255 characters.
int IndexOf(const std::string& name) {
  size_t digits = name.size();
  while (digits > 0 && isdigit(static_cast<unsigned char>(name[digits - 1]))) --digits;
  EXPECT_LT(digits, name.size()) << name;
  EXPECT_LE(name.size(), 255u) << name;
  EXPECT_EQ(name.substr(0, digits), NamePattern(digits)) << name;
  return std::stoi(name.substr(digits));
}

// The smallest period of the contents that divides the size, or 0 when the
// file is empty.
size_t PeriodOf(const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return 0;
  for (size_t p = 1; p <= bytes.size(); ++p) {
    if (bytes.size() % p != 0) continue;
    size_t k = p;
    while (k < bytes.size() && bytes[k] == bytes[k - p]) ++k;
    if (k == bytes.size()) return p;
  }
  return bytes.size();
}

TEST(DirectoryStructureTest, PassesAndLeavesTheSecondThousand) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096);
  ProcessResult r = volume.Run("Directory");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), DirectoryPassLines());
  std::set<int> indexes;
  for (const auto& entry : fs::directory_iterator(volume.Runtests())) {
    EXPECT_EQ(entry.file_size(), 0u);
    indexes.insert(IndexOf(entry.path().filename()));
  }
  EXPECT_EQ(indexes.size(), 1000u);
  EXPECT_EQ(*indexes.begin(), 0);
  EXPECT_EQ(*indexes.rbegin(), 999);
  volume.Unmount();
  testsupport::FsckVerdict verdict = testsupport::CheckImage(volume.Image());
  EXPECT_EQ(verdict.exit_status, 0) << verdict.output;
  EXPECT_NE(verdict.output.find("files 1000"), std::string::npos) << verdict.output;
}

TEST(ClusterAllocationTest, PassesAndLeavesTenPeriodicFiles) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(160 << 20, 4096);  // room for the largest possible run (about 100 MiB)
  ProcessResult r = volume.Run("cluster");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), Concat(ClusterLines(), {"Cluster allocation test success"}));

  // Ten files, indexes 0 to 9, each a whole number of repeats of its own
  // block of at most 1023 bytes.
  std::set<int> indexes;
  for (const auto& entry : fs::directory_iterator(volume.Runtests())) {
    indexes.insert(IndexOf(entry.path().filename()));
    const std::vector<uint8_t> bytes = testsupport::ReadFileBytes(entry.path());
    const size_t period = PeriodOf(bytes);
    EXPECT_LE(period, 1023u) << entry.path() << " size " << bytes.size();
    EXPECT_LE(bytes.size(), 1023u * 1023u * 10u);
  }
  EXPECT_EQ(indexes, std::set<int>({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  volume.ExpectCleanAfterUnmount();
}

TEST(ClusterAllocationTest, FailsWhenTheVolumeFillsUp) {
  QVEXFAT_REQUIRE_MOUNTS();
  // Ten files of ten random appends need about 25 MiB; 4 MiB holds them
  // only if nearly every chunk length is tiny (odds below one in 10^5).
  ExfatVolume volume(4 << 20, 4096);
  ProcessResult r = volume.Run("cluster");
  EXPECT_EQ(r.exit_status, 255);
  const std::vector<std::string> lines = Lines(r.err);
  ASSERT_GE(lines.size(), 5u) << r.err;
  EXPECT_EQ(lines[0], "Cluster allocation test");
  EXPECT_EQ(lines[1], "Create files...");
  for (size_t i = 2; i + 2 < lines.size(); ++i)
    EXPECT_EQ(lines[i], "Append to files " + std::to_string(i - 2));
  EXPECT_EQ(lines[lines.size() - 2], "Cluster allocation test failed: No space left on device (28)");
  EXPECT_EQ(lines.back(), "Test failure");
  // The files stay for inspection.
  EXPECT_EQ(EntryCount(volume.Runtests()), 10u);
}

}  // namespace
