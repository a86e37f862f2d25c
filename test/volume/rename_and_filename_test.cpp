// "rename" and "filename" run by the built tool on exFAT volumes mounted
// through exfat-fuse, which refuses what these tests expect refused, and on
// tmpfs, which takes the six characters exFAT refuses but, like exFAT, no
// name over 255 bytes.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "exfat_image.h"
#include "exfat_volume.h"
#include "volume_expect.h"

namespace {

namespace fs = std::filesystem;
using namespace volumetest;
using testsupport::ExfatVolume;
using testsupport::Lines;
using testsupport::ProcessResult;
using testsupport::RunTool;

TEST(NamesOnExfat, RenamePassesAndLeavesTheOriginalFile) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096);
  for (int run = 0; run < 2; ++run) {
    ProcessResult r = volume.Run("rename");
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(Lines(r.err), RenamePassLines());
  }
  // Only the source file is left, holding its own 98208 bytes (the existing
  // target's 13299 bytes were replaced by it and renamed back).
  EXPECT_EQ(EntryCount(volume.Runtests()), 1u);
  const std::vector<uint8_t> bytes = testsupport::ReadFileBytes(volume.Runtests() + "original_file");
  ASSERT_EQ(bytes.size(), 98208u);
  for (size_t k = 3100; k < bytes.size(); ++k) ASSERT_EQ(bytes[k], bytes[k - 3100]) << k;
}

TEST(NamesOnExfat, FilenamePassesAndLeavesNothing) {
  QVEXFAT_REQUIRE_MOUNTS();
  ExfatVolume volume(16 << 20, 4096);
  ProcessResult r = RunTool({"-v", volume.Path() + "/", "-a", "filename"});
  EXPECT_EQ(r.exit_status, 0);
  const std::string runtests = volume.Path() + "//runtests/";
  EXPECT_EQ(Lines(r.err), FilenameLines(runtests, true, "", "No such file or directory (2)"));
  EXPECT_EQ(EntryCount(runtests), 0u);
}

// A small tmpfs mounted in the test's scratch directory for its lifetime.
class Tmpfs {
 public:
  explicit Tmpfs(const std::string& path) : m_path(path) {
    fs::create_directories(m_path);
    if (mount("tmpfs", m_path.c_str(), "tmpfs", 0, "size=16m") != 0)
      throw std::runtime_error("mount tmpfs: " + std::string(strerror(errno)));
  }
  ~Tmpfs() { umount2(m_path.c_str(), MNT_DETACH); }
  Tmpfs(const Tmpfs&) = delete;
  Tmpfs& operator=(const Tmpfs&) = delete;
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

TEST(NamesOnTmpfs, FilenameFailsOnEveryForbiddenCharacter) {
  if (geteuid() != 0) {
    if (testsupport::InCi()) FAIL() << "tmpfs test needs root under CI";
    GTEST_SKIP() << "tmpfs test skipped: not running as root";
  }
  testsupport::ScratchDir scratch;
  Tmpfs tmpfs(scratch / "tmpfs");
  ProcessResult r = RunTool({"-v", tmpfs.Path() + "/", "-a", "filename"});
  EXPECT_EQ(r.exit_status, 255);
  const std::string runtests = tmpfs.Path() + "//runtests/";
  EXPECT_EQ(Lines(r.err), FilenameLines(runtests, true, "?|*:<>", ""));
  // Each accepted name was checked and removed again.
  EXPECT_TRUE(fs::is_empty(runtests));
}

}  // namespace
