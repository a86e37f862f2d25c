#include "exfat/boot_sector.h"

#include <gtest/gtest.h>

#include <array>

#include "loaded_volume_test_util.h"

namespace {

using exfat_test::StderrOf;
using Raw = std::array<uint8_t, BootSector::kSize>;

Raw ValidSector(uint8_t bytes_shift, uint8_t cluster_shift) {
  Raw raw{};
  raw[0] = 0xEB;
  raw[1] = 0x76;
  raw[2] = 0x90;
  const char name[] = "EXFAT   ";
  std::copy(name, name + 8, &raw[3]);
  testsupport::PutLe(&raw[80], 0x800, 4);    // FatOffset
  testsupport::PutLe(&raw[84], 0x80, 4);     // FatLength
  testsupport::PutLe(&raw[88], 0x1000, 4);   // ClusterHeapOffset
  testsupport::PutLe(&raw[92], 0x3e00, 4);   // ClusterCount
  testsupport::PutLe(&raw[96], 5, 4);        // FirstClusterOfRootDirectory
  raw[106] = 0x06;                           // VolumeDirty | MediaFailure
  raw[108] = bytes_shift;
  raw[109] = cluster_shift;
  raw[110] = 1;
  raw[510] = 0x55;
  raw[511] = 0xAA;
  return raw;
}

// Parses quietly: the printed geometry is compared by the device tests.
std::unique_ptr<BootSector> Parse(const Raw& raw) {
  std::unique_ptr<BootSector> boot;
  StderrOf([&] { boot = ParseBootSector(raw); });
  return boot;
}

}  // namespace

TEST(BootSector, ReadsTheVolumeFlags) {
  auto boot = Parse(ValidSector(9, 3));
  ASSERT_TRUE(boot);
  EXPECT_FALSE(boot->ActiveFat());
  EXPECT_TRUE(boot->VolumeDirty());
  EXPECT_TRUE(boot->MediaFailure());
  EXPECT_EQ(boot->BitmapStartCluster(), 0u);
  EXPECT_EQ(boot->BitmapLength(), 0u);
}

TEST(BootSector, ClusterToSectorCountsFromTheHeap) {
  auto boot = Parse(ValidSector(9, 3));
  ASSERT_TRUE(boot);
  EXPECT_EQ(boot->ClusterToSector(2), 0x1000u);
  EXPECT_EQ(boot->ClusterToSector(5), 0x1000u + 3 * 8);
  // Below 2 it wraps in unsigned arithmetic; callers check clusters first.
  EXPECT_EQ(boot->ClusterToSector(0), 0x1000u - 16);
}

TEST(BootSector, ShiftCountsAreMaskedToFiveBits) {
  auto boot = Parse(ValidSector(9 + 32, 31 + 64));
  ASSERT_TRUE(boot);
  EXPECT_EQ(boot->BytesPerSector(), 512u);
  EXPECT_EQ(boot->SectorsPerCluster(), 0x80000000u);
  EXPECT_EQ(boot->BytesPerSectorShift(), 41u);
}
