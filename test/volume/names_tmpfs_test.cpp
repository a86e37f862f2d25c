// "filename" and "rename" on an ordinary Linux filesystem (tmpfs), which
// takes the six characters exFAT refuses but, like exFAT, no name over 255
// bytes.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using testsupport::Lines;
using testsupport::ProcessResult;
using testsupport::RunTool;
using testsupport::ScratchDir;

namespace {

// A small tmpfs mounted in the test's scratch directory for its lifetime.
class Tmpfs {
 public:
  explicit Tmpfs(const std::string& path) : m_path(path) {
    std::filesystem::create_directories(m_path);
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

#define REQUIRE_ROOT()                                                       \
  do {                                                                       \
    if (geteuid() != 0) {                                                    \
      if (::testsupport::InCi()) FAIL() << "tmpfs test needs root under CI"; \
      GTEST_SKIP() << "tmpfs test skipped: not running as root";             \
    }                                                                        \
  } while (0)

std::string Pattern(size_t length) {
  std::string pattern;
  for (int round = 0; round < 5; ++round)
    pattern += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return pattern.substr(0, length);
}

}  // namespace

TEST(NamesOnTmpfs, FilenameFailsOnEveryForbiddenCharacter) {
  REQUIRE_ROOT();
  ScratchDir scratch;
  Tmpfs tmpfs(scratch / "tmpfs");
  ProcessResult r = RunTool({"-v", tmpfs.Path() + "/", "-a", "filename"});
  EXPECT_EQ(r.exit_status, 255);
  const std::string runtests = tmpfs.Path() + "//runtests/";
  EXPECT_EQ(Lines(r.err),
            std::vector<std::string>(
                {"Check filename limits",
                 "Filename size limit test passed: " + runtests + Pattern(256) +
                     ": File name too long (36)",
                 "Filename name test failed, ? not allowed", "Filename name test failed, | not allowed",
                 "Filename name test failed, * not allowed", "Filename name test failed, : not allowed",
                 "Filename name test failed, < not allowed", "Filename name test failed, > not allowed",
                 "Test failure"}));
  // Each accepted name was checked and removed again.
  EXPECT_TRUE(std::filesystem::is_empty(runtests));
}

TEST(NamesOnTmpfs, RenamePassesBecauseTmpfsRefusesOverLongNamesToo) {
  REQUIRE_ROOT();
  ScratchDir scratch;
  Tmpfs tmpfs(scratch / "tmpfs");
  ProcessResult r = RunTool({"-v", tmpfs.Path() + "/", "-a", "rename"});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(Lines(r.err), std::vector<std::string>({"Rename test",
                                                     "Rename test success: File name too long (36)",
                                                     "Rename test success: File name too long (36)"}));
  EXPECT_EQ(std::filesystem::file_size(tmpfs.Path() + "//runtests/original_file"), 98208u);
}
