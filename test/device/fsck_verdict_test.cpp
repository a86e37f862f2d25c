// fsck.exfat -n (exfatprogs) as an independent judge of each corruption, on
// a volume filled through exfat-fuse that it first reports clean. Both sides
// are asserted: the damage it reports and the damage it does not see, so a
// change in the checker's behaviour shows up here. Each verdict is printed
// to the test log.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "crafted_volume.h"
#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

class FsckVerdicts : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_dir = new ScratchDir();
    if (MountUnavailableReason()) return;  // each test then skips (or fails under CI)
    s_pristine = *s_dir / "populated.img";
    MakeExfatImage(s_pristine, 64ull << 20, 4096);
    {
      MountedVolume volume(s_pristine, *s_dir / "mnt");
      const std::string m = volume.MountPoint();
      // Enough root entries that the root's eighth entry is in use.
      for (int i = 1; i <= 4; ++i) {
        std::ofstream out(m + "/file" + std::to_string(i), std::ios::binary);
        out << std::string(20000 + 1000 * i, static_cast<char>('a' + i));
      }
      std::filesystem::create_directories(m + "/sub");
      std::ofstream(m + "/sub/inside") << "inside";
      volume.Unmount();
    }
    // A file stored without a FAT chain, which exfat-fuse does not write.
    ExfatLayout layout(s_pristine);
    VolumeCrafter craft(layout);
    s_contiguous = craft.AddFile(craft.Root(), u"contiguous", 4, false, true).clusters;
  }
  static void TearDownTestSuite() {
    delete s_dir;
    s_dir = nullptr;
  }

  void SetUp() override {
    QVEXFAT_REQUIRE_MOUNTS();
    FsckVerdict clean = CheckImage(s_pristine);
    ASSERT_EQ(clean.exit_status, 0) << clean.output;
  }

  // Corrupts a copy and returns fsck.exfat -n's verdict on it.
  FsckVerdict Judge(const std::string& description, std::vector<uint8_t>* damaged = nullptr) {
    const std::string image = *s_dir / ("judged" + std::to_string(s_count++) + ".img");
    std::filesystem::copy_file(s_pristine, image);
    ProcessResult r = RunTool({"-d", image, "-c", description});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(ReadFileBytes(image), ReadFileBytes(s_pristine)) << description << " wrote nothing";
    FsckVerdict verdict = Check(image, description);
    if (damaged != nullptr) *damaged = ReadFileBytes(image);
    return verdict;
  }

  // Runs a kind that writes an inverted byte on copies until the image
  // really changed (the byte may already hold that value); returns the copy,
  // or "" after ten tries.
  std::string ChangedCopy(const std::string& kind) {
    for (int attempt = 0; attempt < 10; ++attempt) {
      const std::string image = *s_dir / (kind + std::to_string(attempt) + ".img");
      std::filesystem::copy_file(s_pristine, image);
      ProcessResult r = RunTool({"-d", image, "-c", kind});
      EXPECT_EQ(r.exit_status, 0) << r.err;
      if (ReadFileBytes(image) != ReadFileBytes(s_pristine)) return image;
    }
    ADD_FAILURE() << kind << " never changed the image in ten runs";
    return "";
  }

  static FsckVerdict Check(const std::string& image, const std::string& what) {
    FsckVerdict verdict = CheckImage(image);
    std::cout << "[fsck.exfat -n after " << what << "] exit " << verdict.exit_status << "\n" << verdict.output;
    return verdict;
  }

  static bool Mentions(const FsckVerdict& v, const std::string& text) {
    return v.output.find(text) != std::string::npos;
  }

  static ScratchDir* s_dir;
  static std::string s_pristine;
  static std::vector<uint64_t> s_contiguous;
  static int s_count;
};

ScratchDir* FsckVerdicts::s_dir = nullptr;
std::string FsckVerdicts::s_pristine;
std::vector<uint64_t> FsckVerdicts::s_contiguous;
int FsckVerdicts::s_count = 0;

}  // namespace

// --- Damage the checker reports -------------------------------------------

TEST_F(FsckVerdicts, FatOverTheRootChainIsCaught) {
  ExfatLayout layout(s_pristine);
  FsckVerdict v = Judge("fat:start:" + Hex(layout.Geometry().root_cluster) + ":range:1:value:0");
  EXPECT_NE(v.exit_status, 0);
  EXPECT_TRUE(Mentions(v, "the cluster chain of root is broken")) << v.output;
}

TEST_F(FsckVerdicts, BitmapClearedUnderAFileIsCaught) {
  ExfatLayout layout(s_pristine);
  const FoundSet file = layout.Find("file2");
  FsckVerdict v = Judge("bitmap:start:" + Hex(file.first_cluster) + ":range:2:value:0");
  EXPECT_NE(v.exit_status, 0);
  EXPECT_TRUE(Mentions(v, "/file2: cluster 0x" + Hex(file.first_cluster) + " is marked as free")) << v.output;
}

TEST_F(FsckVerdicts, UpcaseByteIsCaught) {
  FsckVerdict v = Judge("upcase");
  EXPECT_NE(v.exit_status, 0);
  EXPECT_TRUE(Mentions(v, "corrupted upcase table")) << v.output;
}

TEST_F(FsckVerdicts, RootByteInAnEntryInUseIsCaught) {
  ExfatLayout layout(s_pristine);
  ASSERT_GE(layout.RootSlots()[7].bytes[0], 0x80) << "the root's eighth entry must be in use";
  FsckVerdict v = Judge("root");
  EXPECT_NE(v.exit_status, 0);
  EXPECT_TRUE(Mentions(v, "the checksum of a file is wrong")) << v.output;
}

TEST_F(FsckVerdicts, MainBootRegionIsCaught) {
  const std::string image = ChangedCopy("main");
  if (image.empty()) return;
  FsckVerdict v = Check(image, "main");
  EXPECT_NE(v.exit_status, 0);
  EXPECT_TRUE(Mentions(v, "checksum of boot region is not correct")) << v.output;
}

// --- Damage the checker does not see --------------------------------------

TEST_F(FsckVerdicts, BitmapSetOnFreeClustersIsMissed) {
  ExfatLayout layout(s_pristine);
  const uint64_t free = layout.FreeClusters(1000).back();
  ASSERT_FALSE(layout.BitmapBit(free));
  FsckVerdict v = Judge("bitmap:start:" + Hex(free) + ":range:10:value:1");
  EXPECT_EQ(v.exit_status, 0) << v.output;
  EXPECT_TRUE(Mentions(v, "clean")) << v.output;
}

TEST_F(FsckVerdicts, BitmapClearedUnderBitmapAndUpcaseIsMissed) {
  ExfatLayout layout(s_pristine);
  const uint64_t bitmap = layout.BitmapEntry().first_cluster;
  const uint64_t upcase = layout.UpcaseEntry().first_cluster;
  ASSERT_EQ(bitmap, 2u);
  ASSERT_EQ(upcase, 3u);
  std::vector<uint8_t> damaged;
  FsckVerdict v = Judge("bitmap:start:2:range:3:value:0", &damaged);
  EXPECT_EQ(v.exit_status, 0) << v.output;
  ExfatLayout after(*s_dir / ("judged" + std::to_string(s_count - 1) + ".img"));
  EXPECT_FALSE(after.BitmapBit(2));
  EXPECT_FALSE(after.BitmapBit(3));
  EXPECT_FALSE(after.BitmapBit(4));
}

TEST_F(FsckVerdicts, FatOfAFileWithoutFatChainIsMissed) {
  FsckVerdict v = Judge("fat:start:" + Hex(s_contiguous[0]) + ":range:" + Hex(s_contiguous.size()) +
                        ":value:ffffff7");
  EXPECT_EQ(v.exit_status, 0) << v.output;
}

TEST_F(FsckVerdicts, BackupBootRegionIsMissed) {
  const std::string image = ChangedCopy("backup");
  if (image.empty()) return;
  FsckVerdict v = Check(image, "backup");
  EXPECT_EQ(v.exit_status, 0) << v.output;
  // The damage is real: the backup region no longer matches its checksum
  // sector (all of whose copies should equal the computed sum).
  const std::vector<uint8_t> after = ReadFileBytes(image);
  const uint32_t computed = BootRegionChecksum(&after[12 * 512], 512);
  bool mismatch = false;
  for (size_t at = 23 * 512; at < 24 * 512; at += 4) mismatch |= GetLe(&after[at], 4) != computed;
  EXPECT_TRUE(mismatch) << "backup damage not visible to the boot checksum";
  // And the main region still matches its own.
  EXPECT_EQ(BootRegionChecksum(&after[0], 512), GetLe(&after[11 * 512], 4));
}

TEST_F(FsckVerdicts, RootDamageInAnUnusedEntryIsMissed) {
  // A fresh volume: the root holds three entries, the eighth is unused.
  const std::string image = *s_dir / "sparse-root.img";
  MakeExfatImage(image, 64ull << 20, 4096);
  ExfatLayout layout(image);
  ASSERT_EQ(layout.RootSlots()[7].bytes[0], 0);
  ASSERT_EQ(CheckImage(image).exit_status, 0);
  const std::vector<uint8_t> before = ReadFileBytes(image);
  ProcessResult r = RunTool({"-d", image, "-c", "root"});
  ASSERT_EQ(r.exit_status, 0);
  EXPECT_EQ(DifferingOffsets(before, ReadFileBytes(image)),
            std::vector<uint64_t>{layout.ClusterOffset(layout.Geometry().root_cluster) + 250});
  FsckVerdict v = Check(image, "root, unused entry");
  EXPECT_EQ(v.exit_status, 0) << v.output;
}
