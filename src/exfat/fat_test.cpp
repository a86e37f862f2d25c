#include "exfat/fat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "device_expect.h"
#include "loaded_volume_test_util.h"

namespace {

using exfat_test::InvalidCluster;
using exfat_test::LoadedVolume;
using exfat_test::StderrOf;
using exfat_test::TestImage;
using testsupport::ExfatLayout;

constexpr uint64_t kMiB = 1024 * 1024;

// An image with 4 KiB clusters whose cluster count is a multiple of 8, so
// the model's top cluster lies one bit past the on-disk bitmap.
class FatTest : public testing::Test {
 protected:
  TestImage image{64 * kMiB, 4096};
  ExfatLayout layout{image.path};
  const uint64_t cluster_count = layout.Geometry().cluster_count;
  const uint64_t cluster_bytes = layout.Geometry().ClusterBytes();

  // Models the image as it is now, with its allocation bitmap loaded.
  std::unique_ptr<LoadedVolume> Load() {
    auto volume = std::make_unique<LoadedVolume>(image.path);
    const testsupport::StructureEntry bitmap = layout.BitmapEntry();
    EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(volume->fat->LoadAllocationBitmap(bitmap.first_cluster, bitmap.data_length)); }),
              "");
    volume->boot->SetBitmapStartCluster(bitmap.first_cluster);
    volume->boot->SetBitmapLength(bitmap.data_length);
    return volume;
  }
};

}  // namespace

TEST_F(FatTest, ImageHasTheShapeTheseTestsNeed) {
  ASSERT_EQ(cluster_count % 8, 0u);
  ASSERT_EQ(layout.BitmapEntry().data_length, cluster_count / 8);
}

TEST_F(FatTest, CreationMarksOnlyTheRootClusterChecked) {
  auto volume = std::make_unique<LoadedVolume>(image.path);
  const uint64_t root = layout.Geometry().root_cluster;
  for (uint64_t c = 2; c <= cluster_count + 2; ++c) ASSERT_EQ(volume->fat->IsChecked(c), c == root) << c;
}

TEST_F(FatTest, NextClusterAtTheTopOfTheRange) {
  const uint64_t top = cluster_count + 2;
  layout.WriteFat(top, 0x1234);  // the FAT's room reaches past the last real cluster
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] { EXPECT_EQ(fat.NextCluster(top, false, 0), 0x1234u); }), "");
  EXPECT_EQ(StderrOf([&] { EXPECT_EQ(fat.NextCluster(top + 1, false, 9), 0u); }),
            InvalidCluster(top + 1, cluster_count));
  EXPECT_EQ(StderrOf([&] { EXPECT_EQ(fat.NextCluster(1, false, 9), 0u); }), InvalidCluster(1, cluster_count));
  // Contiguous: the count decides the end; running off the top is reported
  // but the next number is returned all the same.
  EXPECT_EQ(StderrOf([&] { EXPECT_EQ(fat.NextCluster(7, true, 0), Fat::kEndOfChain); }), "");
  EXPECT_EQ(StderrOf([&] { EXPECT_EQ(fat.NextCluster(7, true, 1), 8u); }), "");
  EXPECT_EQ(StderrOf([&] { EXPECT_EQ(fat.NextCluster(top, true, 5), top + 1); }),
            InvalidCluster(top + 1, cluster_count) +
                testsupport::Format("Invalid cluster in contiguous allocation: %llx\n",
                                    static_cast<unsigned long long>(top + 1)));
}

TEST_F(FatTest, WriteFatEntryWritesThroughAtTheEntrysOffset) {
  const uint64_t cluster = 300;  // in the FAT's third sector
  const std::vector<uint8_t> before = testsupport::ReadFileBytes(image.path);
  auto volume = Load();
  EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(volume->fat->WriteFatEntry(cluster, 0x0ABCDEF0)); }), "");
  // Visible in the file before the handle is closed.
  const std::vector<uint8_t> after = testsupport::ReadFileBytes(image.path);
  const uint64_t at = layout.FatEntryOffset(cluster);
  EXPECT_EQ(testsupport::DifferingOffsets(before, after), (std::vector<uint64_t>{at, at + 1, at + 2, at + 3}));
  EXPECT_EQ(std::vector<uint8_t>(after.begin() + at, after.begin() + at + 4),
            (std::vector<uint8_t>{0xF0, 0xDE, 0xBC, 0x0A}));
  EXPECT_EQ(volume->fat->ReadFatEntry(cluster), 0x0ABCDEF0u);
}

TEST_F(FatTest, WriteFatEntryOutOfRangeWritesNothing) {
  const std::vector<uint8_t> before = testsupport::ReadFileBytes(image.path);
  auto volume = Load();
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(volume->fat->WriteFatEntry(1, 0)); }), InvalidCluster(1, cluster_count));
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(volume->fat->WriteFatEntry(cluster_count + 3, 0)); }),
            InvalidCluster(cluster_count + 3, cluster_count));
  EXPECT_EQ(testsupport::ReadFileBytes(image.path), before);
  // The model's top cluster is writable: its entry lies inside the FAT.
  EXPECT_TRUE(volume->fat->WriteFatEntry(cluster_count + 2, 7));
  EXPECT_EQ(layout.ReadFat(cluster_count + 2), 7u);
}

TEST_F(FatTest, TopClusterBitIsAddressableInBothBitmaps) {
  auto volume = Load();
  Fat& fat = *volume->fat;
  const uint64_t top = cluster_count + 2;
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.IsClusterAllocated(top)); }), "");
  fat.MarkChecked(top, true);
  EXPECT_TRUE(fat.IsChecked(top));
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.IsClusterAllocated(top + 1)); }), InvalidCluster(top + 1, cluster_count));
  testing::internal::CaptureStderr();
  std::string error;
  try {
    fat.MarkChecked(top + 1, true);
  } catch (const std::runtime_error& e) {
    error = e.what();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), InvalidCluster(top + 1, cluster_count));
  EXPECT_EQ(error, testsupport::Format("Invalid cluster %llx", static_cast<unsigned long long>(top + 1)));
}

TEST_F(FatTest, CheckChainAcceptsFatChainsAndContiguousRuns) {
  const std::vector<uint64_t> chained = layout.Allocate(3, false, false);
  const std::vector<uint64_t> contiguous = layout.Allocate(4, true, true);
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] {
              EXPECT_TRUE(fat.CheckChain(chained[0], false, 3 * cluster_bytes - 1));
              EXPECT_TRUE(fat.CheckChain(contiguous[0], true, 4 * cluster_bytes));
            }),
            "");
  for (uint64_t c : chained) EXPECT_TRUE(fat.IsChecked(c));
  for (uint64_t c : contiguous) EXPECT_TRUE(fat.IsChecked(c));
  EXPECT_FALSE(fat.IsChecked(contiguous.back() + 1));
}

TEST_F(FatTest, CheckChainCountMismatchFailsWithoutFreeing) {
  const std::vector<uint64_t> chain = layout.Allocate(5, false, false);
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(chain[0], false, 3 * cluster_bytes)); }), "");
  for (uint64_t c : chain) EXPECT_TRUE(fat.IsClusterAllocated(c));
  EXPECT_EQ(fat.FreedChains(), 0u);
  // Zero first cluster fails at once and touches nothing.
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(0, false, 0)); }), "");
}

TEST_F(FatTest, CheckChainThroughAnUnallocatedClusterFreesTheChain) {
  const std::vector<uint64_t> chain = layout.Allocate(3, false, false);
  layout.SetBitmapBit(chain[1], false);
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(chain[0], false, 3 * cluster_bytes)); }), "");
  for (uint64_t c : chain) EXPECT_FALSE(fat.IsClusterAllocated(c)) << c;
  EXPECT_EQ(fat.FreedChains(), 1u);
  // Bits the failed walk set in the check bitmap stay set.
  EXPECT_TRUE(fat.IsChecked(chain[0]));
}

TEST_F(FatTest, SecondChainThroughASharedClusterFailsAndIsFreed) {
  const std::vector<uint64_t> first = layout.Allocate(2, false, false);
  const std::vector<uint64_t> second = layout.Allocate(1, false, false);
  layout.WriteFat(second[0], static_cast<uint32_t>(first[1]));  // second -> first's tail
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] {
              EXPECT_TRUE(fat.CheckChain(first[0], false, 2 * cluster_bytes));
              EXPECT_FALSE(fat.CheckChain(second[0], false, 2 * cluster_bytes));
            }),
            "");
  EXPECT_TRUE(fat.IsClusterAllocated(first[0]));
  EXPECT_FALSE(fat.IsClusterAllocated(second[0]));
  EXPECT_FALSE(fat.IsClusterAllocated(first[1]));
}

TEST_F(FatTest, LoopingChainEndsTheWalkAndTheFreeing) {
  const std::vector<uint64_t> chain = layout.Allocate(2, false, false);
  layout.WriteFat(chain[1], static_cast<uint32_t>(chain[0]));
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(chain[0], false, 100 * cluster_bytes)); }), "");
  EXPECT_FALSE(fat.IsClusterAllocated(chain[0]));
  EXPECT_FALSE(fat.IsClusterAllocated(chain[1]));
  EXPECT_EQ(fat.FreedChains(), 0u);
}

TEST_F(FatTest, BrokenLinksAndBadFirstClustersAreReported) {
  const std::vector<uint64_t> chain = layout.Allocate(1, false, false);
  layout.WriteFat(chain[0], 0);  // a link to no cluster
  auto volume = Load();
  Fat& fat = *volume->fat;
  // Once by the walk, once by the freeing that follows it.
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(chain[0], false, 2 * cluster_bytes)); }),
            InvalidCluster(0, cluster_count) + InvalidCluster(0, cluster_count));
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(1, false, cluster_bytes)); }),
            InvalidCluster(1, cluster_count) + InvalidCluster(1, cluster_count));
  const uint64_t past = cluster_count + 3;
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(fat.CheckChain(past, false, cluster_bytes)); }),
            InvalidCluster(past, cluster_count) + InvalidCluster(past, cluster_count));
}

TEST_F(FatTest, FreeChainClearsAContiguousRunInMemoryOnly) {
  const std::vector<uint64_t> run = layout.Allocate(3, true, true);
  const std::vector<uint8_t> before = testsupport::ReadFileBytes(image.path);
  auto volume = Load();
  Fat& fat = *volume->fat;
  EXPECT_EQ(StderrOf([&] { fat.FreeChain(run[0], true, 3); }), "");
  for (uint64_t c : run) EXPECT_FALSE(fat.IsClusterAllocated(c));
  EXPECT_TRUE(fat.IsClusterAllocated(run[0] - 1));
  EXPECT_EQ(fat.FreedChains(), 1u);
  EXPECT_EQ(testsupport::ReadFileBytes(image.path), before);
  EXPECT_EQ(StderrOf([&] { fat.FreeChain(0, true, 3); }), InvalidCluster(0, cluster_count));
}

TEST_F(FatTest, LoopingStructureChainEndsTheSectorWalk) {
  const testsupport::StructureEntry bitmap = layout.BitmapEntry();
  layout.WriteFat(bitmap.first_cluster, bitmap.first_cluster);
  LoadedVolume volume(image.path);
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(volume.fat->LoadAllocationBitmap(bitmap.first_cluster, UINT64_MAX)); }),
            InvalidCluster(bitmap.first_cluster, cluster_count));
}

// 512-byte clusters: the bitmap spans many sectors and clusters.
TEST(FatBitmap, UpdateAllocationBitmapRewritesEverySectorOfTheBitmap) {
  TestImage image(32 * kMiB, 512);
  ExfatLayout layout(image.path);
  const testsupport::StructureEntry bitmap = layout.BitmapEntry();
  const uint64_t cluster_count = layout.Geometry().cluster_count;
  ASSERT_GT(bitmap.data_length, 4 * 512u);
  ASSERT_GT(layout.Clusters(bitmap.first_cluster, bitmap.data_length, false).size(), 4u);

  const std::vector<uint8_t> before = testsupport::ReadFileBytes(image.path);
  std::vector<uint8_t> expected_bitmap = layout.BitmapBytes();
  LoadedVolume volume(image.path);
  Fat& fat = *volume.fat;
  ASSERT_TRUE(fat.LoadAllocationBitmap(bitmap.first_cluster, bitmap.data_length));
  volume.boot->SetBitmapStartCluster(bitmap.first_cluster);
  volume.boot->SetBitmapLength(bitmap.data_length);

  fat.CopyBitmapToCheck();
  const uint64_t set_clusters[] = {2 + 8 * 700 + 3, 2 + 8 * 1500, cluster_count + 1};
  for (uint64_t c : set_clusters) {
    fat.MarkChecked(c, true);
    expected_bitmap[(c - 2) / 8] |= static_cast<uint8_t>(1u << ((c - 2) % 8));
  }
  fat.MarkChecked(2, false);
  expected_bitmap[0] &= 0xFE;

  EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(fat.UpdateAllocationBitmap()); }),
            testsupport::Format("UpdateAllocationBitmap at cluster %llu (%llu bytes)\n",
                                static_cast<unsigned long long>(bitmap.first_cluster),
                                static_cast<unsigned long long>(bitmap.data_length)));
  EXPECT_EQ(layout.BitmapBytes(), expected_bitmap);
  // Nothing but bitmap bytes changed, and only the four touched ones.
  const std::vector<uint64_t> changed = testsupport::DifferingOffsets(before, testsupport::ReadFileBytes(image.path));
  std::vector<uint64_t> expected_changes;
  for (uint64_t c : {uint64_t{2}, set_clusters[0], set_clusters[1], set_clusters[2]}) {
    const bool was_set = (before[layout.BitmapByteOffset(c)] >> ((c - 2) % 8) & 1) != 0;
    const bool now_set = c != 2;
    if (was_set != now_set) expected_changes.push_back(layout.BitmapByteOffset(c));
  }
  std::sort(expected_changes.begin(), expected_changes.end());
  EXPECT_EQ(changed, expected_changes);
  // The model's copy of the bitmap follows the disk.
  EXPECT_FALSE(fat.IsClusterAllocated(2));
  EXPECT_TRUE(fat.IsClusterAllocated(set_clusters[1]));
}

TEST(FatShortImage, WriteFatEntryBeyondTheImageWritesNothing) {
  TestImage image(8 * kMiB, 4096);
  ExfatLayout layout(image.path);
  // Keep the FAT's first sector only: entry 200 lies in its second.
  const uint64_t cut = (layout.Geometry().fat_offset + 1) * 512;
  std::filesystem::resize_file(image.path, cut);
  const std::vector<uint8_t> before = testsupport::ReadFileBytes(image.path);
  LoadedVolume volume(image.path);
  std::string error;
  try {
    volume.fat->WriteFatEntry(200, 0);
  } catch (const std::runtime_error& e) {
    error = e.what();
  }
  EXPECT_EQ(error, "Failed to read FAT sector " + std::to_string(layout.Geometry().fat_offset + 1));
  EXPECT_EQ(testsupport::ReadFileBytes(image.path), before);
  // Entries of the sector that was read are still written.
  EXPECT_TRUE(volume.fat->WriteFatEntry(100, 0x55));
  EXPECT_EQ(layout.ReadFat(100), 0x55u);
}
