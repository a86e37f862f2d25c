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

std::unique_ptr<BootSector> Parse(const Raw& raw, std::string* output = nullptr) {
  std::unique_ptr<BootSector> boot;
  const std::string printed = StderrOf([&] { boot = ParseBootSector(raw); });
  if (output) *output = printed;
  return boot;
}

}  // namespace

TEST(BootSector, PrintsTheGeometryInItsFixedFormats) {
  std::string output;
  auto boot = Parse(ValidSector(9, 3), &output);
  ASSERT_TRUE(boot);
  EXPECT_EQ(output,
            "BootSector info (in hex):\n"
            "\tClusterHeapOffset    0x001000\n"
            "\tClusterCount         0x003e00\n"
            "\tBytesPerSector       0x200\n"
            "\tSectorsPerCluster    0x000008\n"
            "\tNumberOfFats         0x1\n"
            "\tFatOffset            0x000800\n"
            "\tFatLength            0x000080\n"
            "\tRootDirectoryStart   0x000005\n");
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

TEST(BootSector, FirstFailingCheckIsTheOnlyOneReported) {
  std::string output;
  Raw raw = ValidSector(9, 3);
  raw[511] = 0;
  raw[4] = 'Y';
  EXPECT_FALSE(Parse(raw, &output));
  EXPECT_EQ(output, "Invalid signature on boot sector\n");

  raw = ValidSector(9, 3);
  raw[2] = 0x91;
  raw[4] = 'Y';
  EXPECT_FALSE(Parse(raw, &output));
  EXPECT_EQ(output, "Invalid JMP BOOT on boot sector\n");

  raw = ValidSector(9, 3);
  raw[9] = 'X';
  EXPECT_FALSE(Parse(raw, &output));
  EXPECT_EQ(output, "Invalid filesystem name on boot sector\n");

  raw = ValidSector(9, 3);
  raw[10] = 'X';  // the eighth character is not compared
  raw[63] = 1;
  EXPECT_FALSE(Parse(raw, &output));
  EXPECT_EQ(output, "Invalid data in non-zero area of boot sector\n");

  raw[63] = 0;
  raw[64] = 1;  // PartitionOffset is outside the zero area
  EXPECT_TRUE(Parse(raw));
}
