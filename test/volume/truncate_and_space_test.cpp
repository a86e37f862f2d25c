// "truncate", "truncatebug31031" and "diskspace" run by the built tool on
// exFAT volumes mounted through exfat-fuse: exact output, the files they
// leave, and their failure on a volume too small for them.

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <filesystem>
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
using testsupport::ReadBytes;
using testsupport::ReadFileBytes;

// Every byte equals the byte one period earlier: the pattern the tool's
// test files are written with.
void ExpectPeriod(const std::vector<uint8_t>& bytes, size_t period, const std::string& what) {
  for (size_t k = period; k < bytes.size(); ++k)
    ASSERT_EQ(bytes[k], bytes[k - period]) << what << " offset " << k;
}

bool IsDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "<prefix><letters><digits><suffix>": returns the digits as a number, or -1.
// (std::regex trips a false warning of this compiler under the sanitizers.)
int MatchNamedIndex(const std::string& line, const std::string& prefix, const std::string& suffix) {
  if (line.size() < prefix.size() + suffix.size() || line.rfind(prefix, 0) != 0 ||
      line.compare(line.size() - suffix.size(), suffix.size(), suffix) != 0)
    return -1;
  const std::string name = line.substr(prefix.size(), line.size() - prefix.size() - suffix.size());
  const size_t digits = name.find_first_of("0123456789");
  if (digits == std::string::npos || digits > 255 || !IsDigits(name.substr(digits))) return -1;
  for (size_t i = 0; i < digits; ++i)
    if (!isalpha(static_cast<unsigned char>(name[i]))) return -1;
  return std::stoi(name.substr(digits));
}

TEST(TruncateTest, PassesWithTwentyThreeCleanRounds) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(32 << 20, 4096);
  for (int run = 0; run < 2; ++run) {  // the second run starts from a fresh directory
    ProcessResult r = volume.Run("truncate");
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(Lines(r.err), Concat({"Truncate test"}, TruncateRounds(true)));
  }
  // The file left behind: 373 bytes of the last fill, the appended text, a
  // zeroed gap and the text again at 14 MiB.
  const std::string file = volume.Runtests() + "truncfile";
  ASSERT_EQ(fs::file_size(file), 14680075u);
  const std::vector<uint8_t> head = ReadBytes(file, 0, 384);
  EXPECT_EQ(std::string(head.begin(), head.begin() + 373), std::string(373, '*'));
  EXPECT_EQ(std::string(head.begin() + 373, head.end()), std::string("TestString\0", 11));
  const std::vector<uint8_t> gap = ReadBytes(file, 384, 4096);
  EXPECT_EQ(gap, std::vector<uint8_t>(4096, 0));
  const std::vector<uint8_t> tail = ReadBytes(file, 14680064, 11);
  EXPECT_EQ(std::string(tail.begin(), tail.end()), std::string("TestString\0", 11));
  EXPECT_EQ(std::vector<std::string>({"truncfile"}),
            std::vector<std::string>({fs::directory_iterator(volume.Runtests())->path().filename()}));
  volume.ExpectCleanAfterUnmount();
}

TEST(TruncateTest, FailsWhenTheWritePastTheEndFindsNoSpace) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(12 << 20, 4096);  // the rounds fit; 14 MiB does not
  ProcessResult r = volume.Run("truncate");
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err),
            Concat(Concat({"Truncate test"}, TruncateRounds(true)),
                   {"Truncate test failed: No space left on device (28)", "Test failure"}));
  EXPECT_TRUE(fs::exists(volume.Runtests() + "truncfile"));
}

class TruncateBug31031 : public ::testing::TestWithParam<uint32_t> {};

TEST_P(TruncateBug31031, PassesAndLeavesBothFiles) {
  QVEXFAT_REQUIRE_MOUNTS();
  const uint64_t cluster = GetParam();
  ExfatVolume volume(32 << 20, GetParam());
  ProcessResult r = volume.Run("TruncateBug31031");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), Bug31031Lines(cluster));

  // Two files named by a NamePattern prefix and their index: file1 cut to 15
  // clusters, file2 untouched at 30, each repeating its own 1 KiB block.
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(volume.Runtests())) files.push_back(entry.path());
  ASSERT_EQ(files.size(), 2u);
  if (files[0].string().back() == '1') std::swap(files[0], files[1]);

  for (int index = 0; index < 2; ++index) {
    const std::string filename = files[index].filename();
    ASSERT_EQ(filename.back(), static_cast<char>('0' + index));
    EXPECT_LE(filename.size(), 255u);
    EXPECT_EQ(filename, NamePattern(filename.size() - 1) + filename.back());
  }
  const std::vector<uint8_t> file1 = ReadFileBytes(files[0]);
  const std::vector<uint8_t> file2 = ReadFileBytes(files[1]);
  EXPECT_EQ(file1.size(), 15 * cluster);
  EXPECT_EQ(file2.size(), 30 * cluster);
  ExpectPeriod(file1, 1024, "file1");
  ExpectPeriod(file2, 1024, "file2");
  volume.ExpectCleanAfterUnmount();
}

INSTANTIATE_TEST_SUITE_P(ClusterSizes, TruncateBug31031, ::testing::Values(4096u, 32768u));

TEST(TruncateBug31031Failure, VolumeTooSmallForFile1) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(4 << 20, 131072);  // fewer than 30 clusters
  ProcessResult r = volume.Run("truncatebug31031");
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(Lines(r.err), std::vector<std::string>(
                              {"Cluster length 131072 bytes", "Create file1",
                               "Bug 31031 test failed: No space left on device (28)",
                               "Test failure"}));
  // The partly written file stays for inspection.
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(volume.Runtests())) files.push_back(entry.path());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].string().back(), '0');
  EXPECT_GT(fs::file_size(files[0]), 0u);
}

TEST(DiskSpaceTest, BothOutOfSpaceChecksPass) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096);
  const std::string v = volume.Path();
  ProcessResult r = volume.Run("diskspace");
  EXPECT_EQ(r.exit_status, 0) << r.err;
  const std::vector<std::string> lines = Lines(r.err);
  ASSERT_EQ(lines.size(), 7u) << r.err;
  EXPECT_EQ(lines[0], "Disk space test");
  const std::string free_suffix = " free clusters";
  ASSERT_GT(lines[1].size(), free_suffix.size());
  EXPECT_TRUE(IsDigits(lines[1].substr(0, lines[1].size() - free_suffix.size()))) << lines[1];
  EXPECT_EQ(lines[1].substr(lines[1].size() - free_suffix.size()), free_suffix);
  EXPECT_EQ(lines[2], "Cluster length 4096 bytes");
  EXPECT_EQ(lines[3], "Cluster length 4096 bytes");
  EXPECT_EQ(lines[4], "DiskSpaceTest passed: No space left on device (28)");
  EXPECT_EQ(lines[5],
            "Create a lot of files to check that directory cluster allocation fails correctly");
  const int refused_index = MatchNamedIndex(lines[6], "DiskSpaceTest passed: " + v + "/runtests/",
                                           ": No space left on device (28)");
  ASSERT_GE(refused_index, 0) << lines[6];
  EXPECT_LT(refused_index, 512);  // 4 KiB clusters: 512 files were to be made

  // Left behind: the filler, and the empty files made before the refusal.
  const std::string filler = volume.Runtests() + "filler";
  const uint64_t free_clusters = std::stoull(lines[1]);
  EXPECT_EQ(fs::file_size(filler), (free_clusters - 8) * 4096);
  EXPECT_FALSE(fs::exists(volume.Runtests() + "lastfile.bin"));
  int empty_files = 0;
  for (const auto& entry : fs::directory_iterator(volume.Runtests()))
    if (entry.path().filename() != "filler") {
      EXPECT_EQ(entry.file_size(), 0u);
      ++empty_files;
    }
  EXPECT_EQ(empty_files, refused_index);
  struct statvfs info {};
  ASSERT_EQ(statvfs(v.c_str(), &info), 0);
  EXPECT_LE(info.f_bfree, 8u);
  volume.ExpectCleanAfterUnmount();
}

}  // namespace
