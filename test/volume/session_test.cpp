// One engineer's session: every test name and both actions run one after
// another on one exFAT volume mounted through exfat-fuse, each from the state
// the one before left. The volume comes back consistent.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "exfat_image.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

size_t CountFiles(const std::string& dir) {
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir)) ++files;
  return files;
}

}  // namespace

TEST(Session, EveryTestAndActionOnOneVolume) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir scratch;
  const std::string image = scratch / "volume.img";
  // Large enough that fragdisk's first round of twenty files (1 to 17 MiB
  // each) always fits, so every dirN it frees later holds files; a smaller
  // volume can leave a dirN empty, and recreating it with its 20
  // sub-directories then finds no space.
  MakeExfatImage(image, 384 << 20, 131072);
  MountedVolume volume(image, scratch / "mnt");
  const std::string v = volume.MountPoint() + "/";
  const std::string runtests = v + "/runtests/";
  auto run = [&](const std::string& name) {
    ProcessResult r = RunTool({"-v", v, "-a", name});
    EXPECT_EQ(r.out, "") << name;
    return r;
  };

  {  // Leaves a filler that all but fills the volume; the next test clears it.
    ProcessResult r = run("diskspace");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    std::vector<std::string> lines = Lines(r.err);
    ASSERT_EQ(lines.size(), 7u) << r.err;
    EXPECT_EQ(lines[0], "Disk space test");
    EXPECT_EQ(lines[2], "Cluster length 131072 bytes");
    EXPECT_EQ(lines[3], "Cluster length 131072 bytes");
    EXPECT_EQ(lines[4], "DiskSpaceTest passed: No space left on device (28)");
    EXPECT_TRUE(StartsWith(lines[6], "DiskSpaceTest passed: " + runtests)) << lines[6];
  }
  {
    ProcessResult r = run("truncate");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    std::vector<std::string> lines = Lines(r.err);
    ASSERT_EQ(lines.size(), 47u) << r.err;
    EXPECT_EQ(lines.back(), "High half: 4194304 zero bytes, 0 unmodified bytes, 0 other bytes");
    EXPECT_EQ(CountFiles(runtests), 1u);  // the disk space test's files are gone
  }
  {
    ProcessResult r = run("truncatebug31031");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err),
              std::vector<std::string>({"Cluster length 131072 bytes", "Create file1", "Create file2",
                                        "Append to file1", "Truncate file1 once",
                                        "Truncate file1 twice"}));
  }
  {
    ProcessResult r = run("directory");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err),
              std::vector<std::string>({"Creating 1000 test files", "Deleting 1000 test files",
                                        "Re-creating 1000 test files",
                                        "Directory structure test success"}));
    EXPECT_EQ(CountFiles(runtests), 1000u);
  }
  {
    ProcessResult r = run("filename");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    std::vector<std::string> lines = Lines(r.err);
    ASSERT_EQ(lines.size(), 8u) << r.err;
    EXPECT_EQ(lines[0], "Check filename limits");
    EXPECT_TRUE(StartsWith(lines[1], "Filename size limit test passed: " + runtests)) << lines[1];
    for (size_t i = 2; i < 8; ++i)
      EXPECT_TRUE(StartsWith(lines[i], "Filename name test passed: " + runtests)) << lines[i];
    EXPECT_EQ(CountFiles(runtests), 0u);
  }
  {
    ProcessResult r = run("cluster");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    std::vector<std::string> expected{"Cluster allocation test", "Create files..."};
    for (int pass = 0; pass < 10; ++pass)
      expected.push_back("Append to files " + std::to_string(pass));
    expected.push_back("Verify files");
    expected.push_back("Cluster allocation test success");
    EXPECT_EQ(Lines(r.err), expected);
    EXPECT_EQ(CountFiles(runtests), 10u);
  }
  {
    ProcessResult r = run("rename");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    std::vector<std::string> lines = Lines(r.err);
    ASSERT_EQ(lines.size(), 3u) << r.err;
    EXPECT_EQ(lines[0], "Rename test");
    EXPECT_TRUE(StartsWith(lines[1], "Rename test success: ")) << lines[1];
    EXPECT_TRUE(StartsWith(lines[2], "Rename test success: ")) << lines[2];
  }
  {
    ProcessResult r = run("filldir");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    size_t fillers = 0;
    for (const auto& entry : std::filesystem::directory_iterator(v))
      if (StartsWith(entry.path().filename(), "longfiller")) ++fillers;
    EXPECT_EQ(fillers, 500u);
  }
  {  // Last: it leaves the volume full.
    ProcessResult r = run("fragdisk");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    std::vector<std::string> lines = Lines(r.err);
    std::vector<std::string> loops;
    for (const auto& line : lines)
      if (StartsWith(line, "Finished loop ")) loops.push_back(line);
    std::vector<std::string> expected;
    for (int loop = 1; loop <= 19; ++loop) expected.push_back("Finished loop " + std::to_string(loop));
    EXPECT_EQ(loops, expected);
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "Failed to fallocate: No space left on device"),
              20);
    EXPECT_EQ(lines.front(), "Path is " + v);
  }
  volume.Unmount();
  FsckVerdict verdict = CheckImage(image);
  EXPECT_EQ(verdict.exit_status, 0) << verdict.output;
}
