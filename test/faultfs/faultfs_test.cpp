// faultfs itself, checked with plain file calls: without a fault it keeps
// exFAT's rules, and each fault does what it says and nothing else.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "fault_fs.h"
#include "mounted_volume.h"
#include "scratch.h"

using namespace testsupport;

namespace {

constexpr uint32_t kCluster = 4096;

// Writes `data` at `offset` of `path` (created if missing); returns 0 or errno.
int WriteAt(const std::string& path, const std::string& data, off_t offset = 0) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  ssize_t n = pwrite(fd, data.data(), data.size(), offset);
  int error = n < 0 ? errno : (static_cast<size_t>(n) != data.size() ? EIO : 0);
  close(fd);
  return error;
}

std::string ReadAll(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "<open failed: " + std::string(strerror(errno)) + ">";
  std::string text;
  char buffer[65536];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  close(fd);
  return text;
}

int TruncateTo(const std::string& path, off_t size) {
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int error = ftruncate(fd, size) == 0 ? 0 : errno;
  close(fd);
  return error;
}

off_t SizeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// 0 when an empty file could be created at `path`, else errno.
int CreateEmpty(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
  if (fd < 0) return errno;
  close(fd);
  return 0;
}

std::set<std::string> List(const std::string& dir_path) {
  std::set<std::string> names;
  DIR* dir = opendir(dir_path.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(dir);
  return names;
}

struct statvfs Statvfs(const std::string& path) {
  struct statvfs info {};
  EXPECT_EQ(statvfs(path.c_str(), &info), 0);
  return info;
}

FaultFsOptions Options(const std::string& fault, uint64_t size = 256ull << 20,
                       std::optional<uint32_t> lose_after = std::nullopt) {
  FaultFsOptions options;
  options.fault = fault;
  options.size = size;
  options.cluster = kCluster;
  options.lose_after = lose_after;
  return options;
}

// A faultfs mount on this test's scratch directory.
class FaultFsTest : public ::testing::Test {
 protected:
  void Mount(const FaultFsOptions& options = {}) {
    m_fs.emplace(m_scratch / "backing", m_scratch / "mnt", options);
  }
  std::string At(const std::string& name) const { return m_fs->MountPoint() + "/" + name; }
  std::string Backing(const std::string& name) const { return m_fs->Backing() + "/" + name; }

  ScratchDir m_scratch;
  std::optional<FaultFs> m_fs;
};

}  // namespace

TEST_F(FaultFsTest, PassesFileCallsThroughToTheBackingDirectory) {
  QVEXFAT_REQUIRE_FUSE();
  Mount();
  ASSERT_EQ(WriteAt(At("a.txt"), "hello"), 0);
  EXPECT_EQ(ReadAll(At("a.txt")), "hello");
  EXPECT_EQ(ReadAll(Backing("a.txt")), "hello");
  EXPECT_EQ(SizeOf(At("a.txt")), 5);

  ASSERT_EQ(mkdir(At("d").c_str(), 0777), 0);
  ASSERT_EQ(rename(At("a.txt").c_str(), At("d/b.txt").c_str()), 0);
  EXPECT_EQ(List(At("d")), std::set<std::string>{"b.txt"});
  EXPECT_EQ(ReadAll(Backing("d/b.txt")), "hello");

  int fd = open(At("d/b.txt").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(write(fd, " world", 6), 6);
  close(fd);
  EXPECT_EQ(ReadAll(At("d/b.txt")), "hello world");

  // A rename onto an existing file replaces it.
  ASSERT_EQ(WriteAt(At("d/c.txt"), "other"), 0);
  ASSERT_EQ(rename(At("d/c.txt").c_str(), At("d/b.txt").c_str()), 0);
  EXPECT_EQ(List(At("d")), std::set<std::string>{"b.txt"});
  EXPECT_EQ(ReadAll(At("d/b.txt")), "other");

  EXPECT_EQ(unlink(At("d/b.txt").c_str()), 0);
  EXPECT_EQ(rmdir(At("d").c_str()), 0);
  EXPECT_TRUE(List(At("")).empty());
  EXPECT_TRUE(List(m_fs->Backing()).empty());
  EXPECT_EQ(symlink("x", At("link").c_str()), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(FaultFsTest, KeepsTheDataGuaranteesOfAHealthyVolume) {
  QVEXFAT_REQUIRE_FUSE();
  Mount();
  // Growth by ftruncate reads back as zeros.
  ASSERT_EQ(WriteAt(At("grow"), std::string(8192, '*')), 0);
  ASSERT_EQ(TruncateTo(At("grow"), 4096), 0);
  EXPECT_EQ(SizeOf(At("grow")), 4096);
  ASSERT_EQ(TruncateTo(At("grow"), 8192), 0);
  EXPECT_EQ(SizeOf(At("grow")), 8192);
  EXPECT_EQ(ReadAll(At("grow")), std::string(4096, '*') + std::string(4096, '\0'));

  // Truncating one file and writing another leave a third file alone.
  ASSERT_EQ(WriteAt(At("keep"), std::string(8 * kCluster, 'K')), 0);
  ASSERT_EQ(WriteAt(At("cut"), std::string(8 * kCluster, 'C')), 0);
  ASSERT_EQ(TruncateTo(At("cut"), 2 * kCluster), 0);
  ASSERT_EQ(WriteAt(At("other"), std::string(3 * kCluster, 'O')), 0);
  EXPECT_EQ(ReadAll(At("keep")), std::string(8 * kCluster, 'K'));
  EXPECT_EQ(ReadAll(At("cut")), std::string(2 * kCluster, 'C'));

  // Entries stay, however many a directory holds.
  ASSERT_EQ(mkdir(At("many").c_str(), 0777), 0);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(CreateEmpty(At("many/f" + std::to_string(i))), 0);
  EXPECT_EQ(List(At("many")).size(), 300u);
}

TEST_F(FaultFsTest, ReportsItsCapacityInClustersAndRunsOutCleanly) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("", 1 << 20));
  struct statvfs empty = Statvfs(At(""));
  EXPECT_EQ(empty.f_bsize, kCluster);
  EXPECT_EQ(empty.f_blocks, 256u);
  EXPECT_EQ(empty.f_bfree, 255u);  // the root directory's cluster
  EXPECT_EQ(empty.f_namemax, 255u);

  ASSERT_EQ(WriteAt(At("small"), std::string(10000, 's')), 0);
  EXPECT_EQ(Statvfs(At("")).f_bfree, 252u);  // 10000 bytes take 3 clusters

  // A file takes exactly the free clusters, then the volume refuses more.
  int fd = open(At("fill").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  std::string block(100000, 'f');
  uint64_t written = 0;
  int error = 0;
  for (;;) {
    ssize_t n = write(fd, block.data(), block.size());
    if (n < 0) {
      error = errno;
      break;
    }
    ASSERT_GT(n, 0);
    written += static_cast<uint64_t>(n);
  }
  EXPECT_EQ(error, ENOSPC);
  EXPECT_EQ(written, 252u * kCluster);
  EXPECT_EQ(Statvfs(At("")).f_bfree, 0u);
  EXPECT_EQ(posix_fallocate(fd, 0, 253 * kCluster), ENOSPC);
  close(fd);
  EXPECT_EQ(TruncateTo(At("small"), 4 * kCluster), ENOSPC);

  // The root directory's one cluster has room for a few more long names,
  // then it would have to grow and cannot.
  int created = 0;
  for (; created < 100; ++created) {
    error = CreateEmpty(At(std::string(100, 'n') + std::to_string(created)));
    if (error != 0) break;
  }
  EXPECT_EQ(error, ENOSPC);
  EXPECT_GT(created, 0);
  EXPECT_LT(created, 14);  // 128 slots, 9 per name, 2 taken by "small" and "fill"
  EXPECT_EQ(mkdir(At("dir").c_str(), 0777), -1);
  EXPECT_EQ(errno, ENOSPC);

  ASSERT_EQ(unlink(At("fill").c_str()), 0);
  EXPECT_EQ(Statvfs(At("")).f_bfree, 252u);
}

TEST_F(FaultFsTest, RefusesTheNamesExfatRefuses) {
  QVEXFAT_REQUIRE_FUSE();
  Mount();
  EXPECT_EQ(CreateEmpty(At(std::string(255, 'a'))), 0);
  EXPECT_EQ(CreateEmpty(At(std::string(256, 'b'))), ENAMETOOLONG);
  for (std::string name : {"????", "||||", "****", "::::", "<<<<", ">>>>", "a\"b", "a\\b"})
    EXPECT_EQ(CreateEmpty(At(name)), EINVAL) << name;
  EXPECT_EQ(mkdir(At("x:y").c_str(), 0777), -1);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(CreateEmpty(At("short")), 0);
  EXPECT_EQ(rename(At("short").c_str(), At(std::string(260, 'c')).c_str()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(rename(At(std::string(260, 'c')).c_str(), At("target").c_str()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(rename(At("short").c_str(), At("a:b").c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(List(At("")), (std::set<std::string>{std::string(255, 'a'), "short"}));
}

TEST_F(FaultFsTest, StaleExtendShowsTheCutOffBytesAgain) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("stale-extend"));
  ASSERT_EQ(WriteAt(At("f"), std::string(8192, '*')), 0);
  ASSERT_EQ(TruncateTo(At("f"), 4096), 0);
  EXPECT_EQ(ReadAll(At("f")), std::string(4096, '*'));
  ASSERT_EQ(TruncateTo(At("f"), 10000), 0);
  EXPECT_EQ(SizeOf(At("f")), 10000);
  // The old bytes come back where zeros belong; beyond the old end, zeros.
  EXPECT_EQ(ReadAll(At("f")), std::string(8192, '*') + std::string(1808, '\0'));
}

TEST_F(FaultFsTest, WrongTruncateSizeKeepsReportingTheOldSize) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("wrong-truncate-size"));
  ASSERT_EQ(WriteAt(At("f"), std::string(100, 'x')), 0);
  int fd = open(At("f").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 10), 0);
  struct stat st {};
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_size, 100);
  close(fd);
  EXPECT_EQ(SizeOf(At("f")), 100);
  EXPECT_EQ(SizeOf(Backing("f")), 10);  // the data really was cut
  // A write brings the true size back.
  ASSERT_EQ(WriteAt(At("f"), "y", 10), 0);
  EXPECT_EQ(SizeOf(At("f")), 11);
}

TEST_F(FaultFsTest, NoEnospcLetsWritesPastTheCapacity) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("no-enospc", 1 << 20));
  EXPECT_EQ(Statvfs(At("")).f_blocks, 256u);
  EXPECT_EQ(WriteAt(At("big"), std::string(2 << 20, 'b')), 0);
  EXPECT_EQ(SizeOf(At("big")), 2 << 20);
  EXPECT_EQ(Statvfs(At("")).f_bfree, 0u);
  EXPECT_EQ(CreateEmpty(At(std::string(200, 'n'))), 0);
}

TEST_F(FaultFsTest, TruncateFreesWrongZeroesAClusterOfTheFileBeside) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("truncate-frees-wrong"));
  ASSERT_EQ(WriteAt(At("cut"), std::string(8 * kCluster, 'C')), 0);
  ASSERT_EQ(WriteAt(At("small"), std::string(kCluster, 'S')), 0);
  ASSERT_EQ(WriteAt(At("beside"), std::string(8 * kCluster, 'B')), 0);
  ASSERT_EQ(TruncateTo(At("cut"), 2 * kCluster + 1), 0);
  EXPECT_EQ(ReadAll(At("cut")), std::string(2 * kCluster + 1, 'C'));
  EXPECT_EQ(ReadAll(At("small")), std::string(kCluster, 'S'));
  // The largest other file loses its cluster 3, the first one "cut" freed.
  EXPECT_EQ(ReadAll(At("beside")), std::string(3 * kCluster, 'B') + std::string(kCluster, '\0') +
                                       std::string(4 * kCluster, 'B'));
  // A truncation that frees no cluster does no harm.
  ASSERT_EQ(WriteAt(At("beside"), std::string(8 * kCluster, 'B')), 0);
  ASSERT_EQ(TruncateTo(At("cut"), 2 * kCluster + 10), 0);
  EXPECT_EQ(ReadAll(At("beside")), std::string(8 * kCluster, 'B'));
}

TEST_F(FaultFsTest, LongNamesAreAcceptedAndListed) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("long-names"));
  const std::string long_name = std::string(300, 'L') + ".txt";
  const std::string other_name = std::string(256, 'M');
  ASSERT_EQ(WriteAt(At(long_name), "data"), 0);
  EXPECT_EQ(ReadAll(At(long_name)), "data");
  EXPECT_EQ(List(At("")), std::set<std::string>{long_name});
  for (const auto& backing : List(m_fs->Backing())) EXPECT_LE(backing.size(), 255u);
  ASSERT_EQ(rename(At(long_name).c_str(), At(other_name).c_str()), 0);
  EXPECT_EQ(List(At("")), std::set<std::string>{other_name});
  EXPECT_EQ(ReadAll(At(other_name)), "data");
  EXPECT_EQ(unlink(At(other_name).c_str()), 0);
  EXPECT_TRUE(List(m_fs->Backing()).empty());
  EXPECT_EQ(CreateEmpty(At("????")), EINVAL);  // only the length rule is broken
}

TEST_F(FaultFsTest, BadCharsAcceptsAllSixOrOnlyTheNamedOnes) {
  QVEXFAT_REQUIRE_FUSE();
  const std::vector<std::string> names{"????", "||||", "****", "::::", "<<<<", ">>>>"};
  {
    Mount(Options("bad-chars"));
    for (const auto& name : names) EXPECT_EQ(CreateEmpty(At(name)), 0) << name;
    EXPECT_EQ(List(At("")).size(), 6u);
    EXPECT_EQ(CreateEmpty(At(std::string(256, 'a'))), ENAMETOOLONG);
    m_fs.reset();
  }
  std::filesystem::remove_all(m_scratch / "backing");
  Mount(Options("bad-chars=:"));
  for (const auto& name : names) EXPECT_EQ(CreateEmpty(At(name)), name == "::::" ? 0 : EINVAL) << name;
}

TEST_F(FaultFsTest, RenameLongAcceptsOverLongNamesInRenamesOnly) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("rename-long"));
  const std::string long_name(260, 'R');
  EXPECT_EQ(CreateEmpty(At(long_name)), ENAMETOOLONG);
  ASSERT_EQ(WriteAt(At("short"), "data"), 0);
  ASSERT_EQ(rename(At("short").c_str(), At(long_name).c_str()), 0);
  EXPECT_EQ(List(At("")), std::set<std::string>{long_name});
  ASSERT_EQ(rename(At(long_name).c_str(), At("back").c_str()), 0);
  EXPECT_EQ(ReadAll(At("back")), "data");
}

TEST_F(FaultFsTest, LoseEntryDropsTheEntryThatReachesTheCount) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("lose-entry", 256ull << 20, 10));
  ASSERT_EQ(mkdir(At("d").c_str(), 0777), 0);
  for (int i = 0; i < 20; ++i) ASSERT_EQ(CreateEmpty(At("d/f" + std::to_string(i))), 0) << i;
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(SizeOf(At("d/f" + std::to_string(i))), i == 9 ? -1 : 0) << i;
  EXPECT_EQ(List(At("d")).size(), 19u);
}

TEST_F(FaultFsTest, SharedClusterWritesLandInTheFileWrittenBefore) {
  QVEXFAT_REQUIRE_FUSE();
  Mount(Options("shared-cluster"));
  ASSERT_EQ(WriteAt(At("first"), std::string(kCluster, 'a')), 0);
  ASSERT_EQ(WriteAt(At("second"), std::string(100, 'b'), 10), 0);
  EXPECT_EQ(ReadAll(At("second")), std::string(10, '\0') + std::string(100, 'b'));
  EXPECT_EQ(ReadAll(At("first")),
            std::string(10, 'a') + std::string(100, 'b') + std::string(kCluster - 110, 'a'));
}
