// RunTest and FillVolume on real exFAT volumes mounted through exfat-fuse.

#include "tests/test_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "exfat_volume.h"
#include "tests/fill_volume.h"

namespace {

using testsupport::ExfatVolume;

// What the last test function was given, and how often it ran.
std::string g_directory;
int g_calls = 0;

void RecordingTest(const std::string& directory) {
  g_directory = directory;
  ++g_calls;
}

void ExpectsEmptyDirectory(const std::string& directory) {
  ++g_calls;
  if (!std::filesystem::is_empty(directory)) throw std::runtime_error("leftovers");
  std::ofstream(directory + "left-behind") << "x";
}

void ThrowsRuntimeError(const std::string&) { throw std::runtime_error("broken"); }
void ThrowsInt(const std::string&) { throw 42; }
void ThrowsFilesystemError(const std::string& directory) {
  std::filesystem::remove(directory + "no/such");
  std::filesystem::create_directory(directory + "no/such/deeper");
}

class RunnerOnExfat : public ::testing::Test {
 protected:
  void Mount(bool read_only = false, uint32_t cluster = 4096) {
    m_volume.emplace(16 << 20, cluster, read_only);
    g_directory.clear();
    g_calls = 0;
  }
  bool Run(VolumeTest test, std::string* err) {
    testing::internal::CaptureStderr();
    const bool passed = RunTest(m_volume->Path(), test);
    *err = testing::internal::GetCapturedStderr();
    return passed;
  }

  std::optional<ExfatVolume> m_volume;
};

TEST_F(RunnerOnExfat, GivesTheTestAnEmptyRuntestsDirectory) {
  QVEXFAT_REQUIRE_MOUNTS();
  Mount();
  std::string err;
  EXPECT_TRUE(Run(RecordingTest, &err));
  EXPECT_EQ(err, "");
  EXPECT_EQ(g_directory, m_volume->Path() + "/runtests/");
  EXPECT_TRUE(std::filesystem::is_directory(g_directory));

  // What an earlier run left, files and directories, is gone before the test.
  std::filesystem::create_directories(g_directory + "a/b/c");
  std::ofstream(g_directory + "a/b/c/old") << "old";
  std::ofstream(g_directory + "old") << "old";
  EXPECT_TRUE(Run(ExpectsEmptyDirectory, &err));
  EXPECT_TRUE(Run(ExpectsEmptyDirectory, &err));
  EXPECT_EQ(g_calls, 3);
  // And the last run's file stays after it.
  EXPECT_TRUE(std::filesystem::exists(m_volume->Path() + "/runtests/left-behind"));
}

TEST_F(RunnerOnExfat, AnyThrownTypeIsATestFailure) {
  QVEXFAT_REQUIRE_MOUNTS();
  Mount();
  for (VolumeTest test : {ThrowsRuntimeError, ThrowsInt, ThrowsFilesystemError}) {
    std::string err;
    EXPECT_FALSE(Run(test, &err));
    EXPECT_EQ(err, "Test failure\n");
  }
}

TEST_F(RunnerOnExfat, TestIsNeverCalledWhenTheDirectoryCannotBeMade) {
  QVEXFAT_REQUIRE_MOUNTS();
  Mount(/*read_only=*/true);
  std::string err;
  EXPECT_FALSE(Run(RecordingTest, &err));
  EXPECT_EQ(err, "Test failure\n");
  EXPECT_EQ(g_calls, 0);
}

TEST(Runner, MissingVolumeIsATestFailure) {
  g_calls = 0;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(RunTest("/nonexistent/volume", RecordingTest));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Test failure\n");
  EXPECT_EQ(g_calls, 0);
}

TEST_F(RunnerOnExfat, FillVolumeLeavesTheAskedClustersFree) {
  QVEXFAT_REQUIRE_MOUNTS();
  Mount(false, 8192);
  const std::string directory = m_volume->Path() + "/";
  struct statvfs before {};
  ASSERT_EQ(statvfs(directory.c_str(), &before), 0);
  testing::internal::CaptureStderr();
  FillVolume(directory, 8);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, std::to_string(before.f_bfree) + " free clusters\nCluster length 8192 bytes\n");

  struct statvfs after {};
  ASSERT_EQ(statvfs(directory.c_str(), &after), 0);
  EXPECT_EQ(after.f_bfree, 8u);
  struct stat filler {};
  ASSERT_EQ(lstat((directory + "filler").c_str(), &filler), 0);
  EXPECT_EQ(static_cast<uint64_t>(filler.st_size), (before.f_bfree - 8) * 8192);

  // Failures propagate: here the probe of a missing directory.
  testing::internal::CaptureStderr();
  try {
    FillVolume(directory + "missing/", 0);
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "Failed to get number of free clusters");
  }
  testing::internal::GetCapturedStderr();
}

}  // namespace
