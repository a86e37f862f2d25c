// The mounted-volume harness itself: an image made by mkfs.exfat mounts
// through a loop device and exfat-fuse, takes files, and comes back clean.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>

#include "exfat_image.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

TEST(MountSupport, MountWriteUnmountAndCheck) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir scratch;
  const std::string image = scratch / "volume.img";
  MakeExfatImage(image, 32 << 20, 8192);
  {
    MountedVolume volume(image, scratch / "mnt");
    struct statvfs info {};
    ASSERT_EQ(statvfs(volume.MountPoint().c_str(), &info), 0);
    EXPECT_EQ(info.f_bsize, 8192u);  // the cluster size chosen at mkfs time
    std::ofstream(volume.MountPoint() + "/hello.txt") << "hello\n";
    volume.Unmount();
    EXPECT_EQ(RunProcess({"losetup", "-j", image}).out, "");
  }
  FsckVerdict verdict = CheckImage(image);
  EXPECT_EQ(verdict.exit_status, 0) << verdict.output;
  EXPECT_NE(verdict.output.find("files 1"), std::string::npos) << verdict.output;
}

TEST(MountSupport, ReadOnlyMountRefusesWrites) {
  QVEXFAT_REQUIRE_MOUNTS();
  ScratchDir scratch;
  const std::string image = scratch / "volume.img";
  MakeExfatImage(image, 16 << 20);
  MountedVolume volume(image, scratch / "mnt", /*read_only=*/true);
  int fd = open((volume.MountPoint() + "/x").c_str(), O_WRONLY | O_CREAT, 0644);
  EXPECT_LT(fd, 0);
  if (fd >= 0) close(fd);
}
