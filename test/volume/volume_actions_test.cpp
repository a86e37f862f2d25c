// The "fragdisk" and "filldir" actions and the volume dispatch, run by the
// built tool on exFAT volumes mounted through exfat-fuse.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "exfat_volume.h"

namespace {

namespace fs = std::filesystem;
using testsupport::ExfatVolume;
using testsupport::Lines;
using testsupport::ProcessResult;
using testsupport::RunTool;

// Every path below `root` with its size (directories as "/"), sorted.
std::set<std::string> Listing(const std::string& root) {
  std::set<std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string relative = entry.path().string().substr(root.size());
    entries.insert(entry.is_directory() ? relative + "/"
                                        : relative + " " + std::to_string(entry.file_size()));
  }
  return entries;
}

std::string FillDirName(const std::string& base, int index) {
  std::string letters;
  for (int i = 0; i < 6; ++i) letters += "abcdefghijklmnpqrstuvwxyz";  // no "o"
  return base + "longfiller" + letters + "." + std::to_string(index);
}

TEST(FragmentDisk, NineteenLoopsLeaveTheVolumeFullAndConsistent) {
  QVEXFAT_REQUIRE_MOUNTS();
  // Large enough that the first fill always covers all 20 directories (a
  // round of 20 files is at most 340 MiB), so every freed directory makes
  // room for the 21 directories that replace it.
  ExfatVolume volume(384 << 20, 131072);
  const std::string v = volume.Path() + "/";

  ProcessResult r = RunTool({"-v", v, "-a", "fragdisk"});
  EXPECT_EQ(r.exit_status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  std::vector<std::string> expected{"Path is " + v, "Failed to fallocate: No space left on device"};
  for (int loop = 1; loop <= 19; ++loop) {
    expected.push_back("Finished loop " + std::to_string(loop));
    expected.push_back("");
    expected.push_back("Path is " + v + "/dir" + std::to_string(loop - 1));
    expected.push_back("Failed to fallocate: No space left on device");
  }
  EXPECT_EQ(Lines(r.err), expected);

  struct statvfs info {};
  ASSERT_EQ(statvfs(v.c_str(), &info), 0);
  EXPECT_EQ(info.f_bfree, 0u);
  // dir0 to dir18 were freed and rebuilt with 20 sub-directories each.
  for (int d = 0; d < 20; ++d) {
    const std::string dir = v + "dir" + std::to_string(d);
    ASSERT_TRUE(fs::is_directory(dir)) << dir;
    EXPECT_EQ(fs::is_directory(dir + "/dir19"), d < 19) << dir;
    EXPECT_FALSE(fs::exists(dir + "/dir20"));
  }
  // Every round's files share one size of 1 MiB to 17 MiB.
  for (const auto& entry : fs::recursive_directory_iterator(v)) {
    if (!entry.is_regular_file()) continue;
    EXPECT_EQ(entry.path().filename().string().rfind("filler.", 0), 0u) << entry.path();
    EXPECT_LE(entry.file_size(), uint64_t{17} << 20) << entry.path();
  }

  // A second run stops at once on the first run's dir0 and changes nothing.
  const std::set<std::string> before = Listing(v);
  r = RunTool({"-v", v, "-a", "FragDisk"});
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(r.err, "Test failed: " + v + "/dir0: File exists (17)\n");
  EXPECT_EQ(Listing(v), before);

  volume.ExpectCleanAfterUnmount();
}

TEST(FragmentDisk, MissingVolumeFailsOnTheFirstDirectory) {
  ProcessResult r = RunTool({"-v", "/nonexistent/volume/", "-a", "fragdisk"});
  EXPECT_EQ(r.exit_status, 255);
  EXPECT_EQ(r.err, "Test failed: /nonexistent/volume//dir0: No such file or directory (2)\n");
}

TEST(FillDirectory, CreatesFiveHundredEmptyFilesWithLongNames) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096);
  const std::string v = volume.Path() + "/";

  std::set<std::string> expected;
  for (int i = 0; i < 500; ++i) expected.insert(FillDirName("", i) + " 0");
  EXPECT_EQ(FillDirName("", 0).size(), 162u);
  EXPECT_EQ(FillDirName("", 499).size(), 164u);

  for (const char* name : {"filldir", "FillDir"}) {
    ProcessResult r = RunTool({"-v", v, "-a", name});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(Listing(v), expected);
  }

  // Without the trailing "/" the names continue the volume's own name, so
  // the files land beside the mount point.
  ProcessResult r = RunTool({"-v", volume.Path(), "-a", "filldir"});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_TRUE(fs::exists(FillDirName(volume.Path(), 0)));
  EXPECT_TRUE(fs::exists(FillDirName(volume.Path(), 499)));
  EXPECT_EQ(fs::file_size(FillDirName(volume.Path(), 250)), 0u);
  EXPECT_EQ(Listing(v), expected);
  volume.ExpectCleanAfterUnmount();
}

TEST(FillDirectory, ReadOnlyVolumeStopsAtTheFirstFile) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096, /*read_only=*/true);
  const std::string v = volume.Path() + "/";
  ProcessResult r = RunTool({"-v", v, "-a", "filldir"});
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Failed to open " + FillDirName(v, 0) + "\n\n");
  EXPECT_TRUE(Listing(v).empty());
}

TEST(VolumeDispatch, UnknownNamesDoNothing) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096);
  const std::string v = volume.Path() + "/";
  for (const char* name : {"filldisk", "fallocate", "runtests", "", "fragdisk2", "fill"}) {
    ProcessResult r = RunTool({"-v", v, "-a", name});
    EXPECT_EQ(r.exit_status, 0) << name;
    EXPECT_EQ(r.out + r.err, "") << name;
  }
  ProcessResult r = RunTool({"-v", v});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_TRUE(Listing(v).empty());
}

}  // namespace
