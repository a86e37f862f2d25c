// The two probes against statvfs of a real exFAT volume mounted through
// exfat-fuse, whose block size is the cluster size chosen at mkfs time.

#include "tests/volume_probes.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <fstream>
#include <optional>
#include <stdexcept>

#include "exfat_image.h"
#include "mounted_volume.h"
#include "scratch.h"

namespace {

using testsupport::MakeExfatImage;
using testsupport::MountedVolume;
using testsupport::ScratchDir;

uint64_t FreeBlocks(const std::string& path) {
  struct statvfs info {};
  EXPECT_EQ(statvfs(path.c_str(), &info), 0);
  return info.f_bfree;
}

class ProbesOnExfat : public ::testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    QVEXFAT_REQUIRE_MOUNTS();
    MakeExfatImage(m_scratch / "volume.img", 32 << 20, GetParam());
    m_volume.emplace(m_scratch / "volume.img", m_scratch / "mnt");
  }
  ScratchDir m_scratch;
  std::optional<MountedVolume> m_volume;
};

TEST_P(ProbesOnExfat, ClusterLengthIsTheMkfsClusterSize) {
  testing::internal::CaptureStderr();
  const uint64_t length = GetClusterLength(m_volume->MountPoint());
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(length, GetParam());
  EXPECT_EQ(err, "Cluster length " + std::to_string(GetParam()) + " bytes\n");
}

TEST_P(ProbesOnExfat, FreeClusterCountFollowsTheVolume) {
  const std::string mount = m_volume->MountPoint();
  testing::internal::CaptureStderr();
  const uint64_t before = GetFreeClusterCount(mount);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(before, FreeBlocks(mount));
  EXPECT_EQ(err, std::to_string(before) + " free clusters\n");
  // 32 MiB image: a few clusters go to the FAT, bitmap, up-case table, root.
  EXPECT_GT(before * GetParam(), uint64_t{29} << 20);
  EXPECT_LT(before * GetParam(), uint64_t{32} << 20);

  // Five clusters of data take five clusters.
  {
    std::ofstream five(mount + "/five", std::ios::binary);
    five << std::string(5 * GetParam(), '\xa5');
  }
  testing::internal::CaptureStderr();
  const uint64_t after = GetFreeClusterCount(mount);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(after, before - 5);
}

INSTANTIATE_TEST_SUITE_P(ClusterSizes, ProbesOnExfat, ::testing::Values(4096u, 32768u));

TEST(Probes, UnreachableVolume) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(GetClusterLength("/nonexistent/volume"), 131072u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Using default 128KB cluster size\n");

  testing::internal::CaptureStderr();
  try {
    GetFreeClusterCount("/nonexistent/volume");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to get number of free clusters");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
