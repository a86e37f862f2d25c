// One engineer's session: every test name and both actions run one after
// another on one exFAT volume mounted through exfat-fuse, each from the state
// the one before left. The volume comes back consistent.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "exfat_volume.h"
#include "line_lists.h"
#include "volume_expect.h"

using namespace testsupport;
using namespace volumetest;

namespace {

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

TEST(Session, EveryTestAndActionOnOneVolume) {
  QVEXFAT_REQUIRE_MOUNTS();
  // Large enough that fragdisk's first round of twenty files (1 to 17 MiB
  // each) always fits, so every dirN it frees later holds files; a smaller
  // volume can leave a dirN empty, and recreating it with its 20
  // sub-directories then finds no space.
  ExfatVolume volume(384 << 20, 131072);
  const std::string v = volume.Path() + "/";
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
    EXPECT_EQ(Lines(r.err), Concat({"Truncate test"}, TruncateRounds(true)));
    EXPECT_EQ(EntryCount(runtests), 1u);  // the disk space test's files are gone
  }
  {
    ProcessResult r = run("truncatebug31031");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err), Bug31031Lines(131072));
  }
  {
    ProcessResult r = run("directory");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err), DirectoryPassLines());
    EXPECT_EQ(EntryCount(runtests), 1000u);
  }
  {
    ProcessResult r = run("filename");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err), FilenameLines(runtests, true, "", "No such file or directory (2)"));
    EXPECT_EQ(EntryCount(runtests), 0u);
  }
  {
    ProcessResult r = run("cluster");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err), Concat(ClusterLines(), {"Cluster allocation test success"}));
    EXPECT_EQ(EntryCount(runtests), 10u);
  }
  {
    ProcessResult r = run("rename");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(Lines(r.err), RenamePassLines());
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
  volume.ExpectCleanAfterUnmount();
}
