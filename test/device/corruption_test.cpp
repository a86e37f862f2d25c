// The six corruptions end to end on real images: the exact lines, and a
// byte-for-byte comparison of the whole image before and after, which must
// differ in exactly the bytes the kind names. Also the description syntax,
// random defaults within their ranges, and failures that must write nothing.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <set>

#include "crafted_volume.h"
#include "device_expect.h"
#include "exfat_image.h"
#include "exfat_layout.h"
#include "process.h"
#include "scratch.h"

using namespace testsupport;

namespace {

class Corruption : public ::testing::Test {
 public:
  void SetUp() override {
    m_pristine = m_dir / "pristine.img";
    MakeExfatImage(m_pristine, 16ull << 20, 4096);
    {
      // Some files, so that the FAT and bitmap hold chains; none is deleted
      // by the scan.
      ExfatLayout layout(m_pristine);
      VolumeCrafter craft(layout);
      CraftedDir sub;
      craft.AddFile(craft.Root(), u"chained", 3, true);
      craft.AddFile(craft.Root(), u"contiguous", 2, false, true);
      craft.AddDirectory(craft.Root(), u"sub", sub);
      craft.AddFile(sub, u"inner", 1);
      m_geometry = layout.Geometry();
      m_root = layout.Geometry().root_cluster;
      m_upcase = layout.UpcaseEntry().first_cluster;
      m_bitmap = layout.BitmapEntry();
    }
    m_bytes = ReadFileBytes(m_pristine);
  }

  // A fresh copy of the pristine image.
  std::string Copy() {
    const std::string path = m_dir / ("run" + std::to_string(m_count++) + ".img");
    std::filesystem::copy_file(m_pristine, path);
    return path;
  }

  ProcessResult Run(const std::string& image, const std::string& description) {
    return RunTool({"-d", image, "-c", description});
  }

  // Runs `description` on a copy: status, exact lines after the preamble,
  // and the whole image equal to `expected`.
  void Expect(const std::string& description, int status, const std::vector<std::string>& lines,
              const std::vector<uint8_t>& expected) {
    const std::string image = Copy();
    ExpectToolRun({"-d", image, "-c", description}, status, Joined(Concat(Preamble(image), lines)),
                  image, expected);
  }

  uint64_t FatOffset(uint64_t cluster) const {
    return m_geometry.fat_offset * 512 + 4 * cluster;
  }

  std::vector<uint8_t> WithFat(std::vector<uint8_t> image, uint64_t first, uint64_t count,
                               uint32_t value) const {
    for (uint64_t c = first; c < first + count; ++c) PutLe(&image[FatOffset(c)], value, 4);
    return image;
  }

  uint64_t BitmapBitOffset(uint64_t cluster) const {
    // The bitmap of this image is one cluster long.
    return (m_geometry.cluster_heap_offset + (m_bitmap.first_cluster - 2) * 8) * 512 + (cluster - 2) / 8;
  }

  std::vector<uint8_t> WithBits(std::vector<uint8_t> image, uint64_t first, uint64_t count,
                                bool value) const {
    for (uint64_t c = first; c < first + count; ++c) {
      const uint8_t mask = static_cast<uint8_t>(1u << ((c - 2) % 8));
      uint8_t& byte = image[BitmapBitOffset(c)];
      byte = value ? (byte | mask) : (byte & ~mask);
    }
    return image;
  }

  std::string Total() const { return Hex(m_geometry.cluster_count + 2); }
  std::string BitmapUpdateLine() const {
    return Format("UpdateAllocationBitmap at cluster %u (%" PRIu64 " bytes)", m_bitmap.first_cluster,
                  m_bitmap.data_length);
  }
  uint64_t ClusterOffset(uint64_t cluster) const {
    return (m_geometry.cluster_heap_offset + (cluster - 2) * 8) * 512;
  }

  ScratchDir m_dir;
  std::string m_pristine;
  std::vector<uint8_t> m_bytes;
  ExfatGeometry m_geometry;
  uint64_t m_root = 0;
  uint64_t m_upcase = 0;
  StructureEntry m_bitmap;
  int m_count = 0;
};

// Parses "<prefix><hex> for <hex> clusters, to value <hex>".
bool ParseCorruptLine(const std::string& line, const char* kind, uint64_t& start, uint64_t& range,
                      uint64_t& value) {
  const std::string format = std::string("Corrupt ") + kind +
                             " from %" SCNx64 " for %" SCNx64 " clusters, to value %" SCNx64 "%n";
  int consumed = 0;
  if (sscanf(line.c_str(), format.c_str(), &start, &range, &value, &consumed) != 3) return false;
  return static_cast<size_t>(consumed) == line.size();
}

}  // namespace

TEST_F(Corruption, FatEntriesWithExplicitParameters) {
  Expect("fat:start:20:range:3:value:0ffffff7", 0,
         {"Corrupt FAT from 20 for 3 clusters, to value ffffff7"}, WithFat(m_bytes, 0x20, 3, 0x0FFFFFF7));
  // Over the root directory's own chain.
  Expect("fat:start:" + Hex(m_root) + ":range:1:value:0", 0,
         {"Corrupt FAT from " + Hex(m_root) + " for 1 clusters, to value 0"}, WithFat(m_bytes, m_root, 1, 0));
  // A range of 0 writes nothing.
  Expect("fat:start:20:range:0:value:1", 0, {"Corrupt FAT from 20 for 0 clusters, to value 1"}, m_bytes);
  // The value is written as 32 bits.
  Expect("fat:start:30:range:1:value:123456789", 0,
         {"Corrupt FAT from 30 for 1 clusters, to value 123456789"}, WithFat(m_bytes, 0x30, 1, 0x23456789));
}

TEST_F(Corruption, FatEntriesOutsideTheHeapAreSkipped) {
  const uint64_t top = m_geometry.cluster_count + 1;
  // ClusterCount + 2 is still written; the two after it are not.
  Expect("fat:start:" + Hex(top) + ":range:4:value:abc", 0,
         {"Corrupt FAT from " + Hex(top) + " for 4 clusters, to value abc",
          "Invalid cluster: " + Hex(top + 2) + " (" + Total() + " total)",
          "Invalid cluster: " + Hex(top + 3) + " (" + Total() + " total)"},
         WithFat(m_bytes, top, 2, 0xABC));
  Expect("fat:start:0:range:3:value:7", 0,
         {"Corrupt FAT from 0 for 3 clusters, to value 7", "Invalid cluster: 0 (" + Total() + " total)",
          "Invalid cluster: 1 (" + Total() + " total)"},
         WithFat(m_bytes, 2, 1, 7));
}

TEST_F(Corruption, BitmapBitsWithExplicitParameters) {
  Expect("bitmap:start:2:range:3:value:0", 0,
         {"Corrupt BITMAP from 2 for 3 clusters, to value 0", BitmapUpdateLine()}, WithBits(m_bytes, 2, 3, false));
  Expect("bitmap:start:100:range:10:value:1", 0,
         {"Corrupt BITMAP from 100 for 10 clusters, to value 1", BitmapUpdateLine()},
         WithBits(m_bytes, 0x100, 0x10, true));
  // Any non-zero value sets the bits.
  Expect("bitmap:start:200:range:9:value:5", 0,
         {"Corrupt BITMAP from 200 for 9 clusters, to value 5", BitmapUpdateLine()},
         WithBits(m_bytes, 0x200, 9, true));
  // The last in-range cluster, ClusterCount + 2, is one bit past the
  // bitmap's clusters; ClusterCount + 1 is the last real one.
  Expect("bitmap:start:" + Hex(m_geometry.cluster_count + 1) + ":range:1:value:1", 0,
         {"Corrupt BITMAP from " + Hex(m_geometry.cluster_count + 1) + " for 1 clusters, to value 1",
          BitmapUpdateLine()},
         WithBits(m_bytes, m_geometry.cluster_count + 1, 1, true));
}

TEST_F(Corruption, BitmapRangeOutOfRangeWritesNothing) {
  const uint64_t top = m_geometry.cluster_count + 1;
  Expect("bitmap:start:" + Hex(top) + ":range:3:value:1", 255,
         {"Corrupt BITMAP from " + Hex(top) + " for 3 clusters, to value 1",
          "Invalid cluster: " + Hex(top + 2) + " (" + Total() + " total)",
          "Test failed: Invalid cluster " + Hex(top + 2)},
         m_bytes);
  Expect("bitmap:start:0:range:1:value:0", 255,
         {"Corrupt BITMAP from 0 for 1 clusters, to value 0", "Invalid cluster: 0 (" + Total() + " total)",
          "Test failed: Invalid cluster 0"},
         m_bytes);
}

TEST_F(Corruption, UpcaseByteTen) {
  std::vector<uint8_t> expected = m_bytes;
  expected[ClusterOffset(m_upcase) + 10] ^= 0xFF;
  Expect("upcase", 0, {"Corrupted UpCase table"}, expected);
  // Parameters are ignored by this kind; the kind matches in any case.
  Expect("UpCase:start:5:range:1", 0, {"Corrupted UpCase table"}, expected);
}

TEST_F(Corruption, RootByte250) {
  std::vector<uint8_t> expected = m_bytes;
  expected[ClusterOffset(m_root) + 250] ^= 0xFF;
  Expect("root", 0, {"Corrupted root sector area"}, expected);
  Expect("ROOT:value:1", 0, {"Corrupted root sector area"}, expected);
}

TEST_F(Corruption, BootRegionsOneByteInTheirSectors) {
  // main: sectors 1..11; backup: 13..23. The byte written is the inverse of
  // some byte of the same sector. Twenty runs each must show more than one
  // sector and never touch anything else.
  for (const char* kind : {"main", "backup"}) {
    const uint64_t first = std::string(kind) == "main" ? 1 : 13;
    const std::string message = std::string(kind) == "main" ? "Corrupted main boot area" : "Corrupted backup boot area";
    std::set<uint64_t> sectors;
    int changed = 0;
    for (int run = 0; run < 20; ++run) {
      const std::string image = Copy();
      ProcessResult r = Run(image, kind);
      ASSERT_EQ(r.exit_status, 0);
      ASSERT_EQ(r.err, Joined(Concat(Preamble(image), {message})));
      const std::vector<uint8_t> after = ReadFileBytes(image);
      std::vector<uint64_t> diff = DifferingOffsets(m_bytes, after);
      ASSERT_LE(diff.size(), 1u) << kind;
      if (diff.empty()) continue;
      ++changed;
      const uint64_t sector = diff[0] / 512;
      EXPECT_GE(sector, first) << kind;
      EXPECT_LE(sector, first + 10) << kind;
      sectors.insert(sector);
      bool found = false;
      for (uint64_t i = sector * 512; i < sector * 512 + 512; ++i)
        found |= static_cast<uint8_t>(~m_bytes[i]) == after[diff[0]];
      EXPECT_TRUE(found) << "the new byte is no inverted byte of its sector";
      if (sector != first + 10) {
        // The region's checksum sector is left stale.
        const uint64_t region = first - 1;
        EXPECT_NE(BootRegionChecksum(&after[region * 512], 512), GetLe(&after[(region + 11) * 512], 4));
      }
    }
    EXPECT_GE(changed, 10) << kind;
    EXPECT_GE(sectors.size(), 3u) << kind;
  }
}

TEST_F(Corruption, NothingToDo) {
  for (const char* description : {"", ":", "::"})
    Expect(description, 0, {}, m_bytes);
  Expect("bogus", 0, {"Unknown corruption: bogus"}, m_bytes);
  Expect("bogus:start:2", 0, {"Unknown corruption: bogus"}, m_bytes);
  Expect("fats", 0, {"Unknown corruption: fats"}, m_bytes);
  Expect(" fat", 0, {"Unknown corruption:  fat"}, m_bytes);
}

TEST_F(Corruption, DescriptionSyntax) {
  const std::vector<uint8_t> one = WithFat(m_bytes, 0x20, 1, 5);
  const std::vector<std::string> line{"Corrupt FAT from 20 for 1 clusters, to value 5"};
  // The reading of keywords and values is covered in detail beside its code;
  // these show it joined to the kinds.
  Expect("FAT:START:20:RANGE:1:VALUE:5", 0, line, one);
  Expect("fat::start:20::range:1:value:5:", 0, line, one);
  Expect("fat:junk:value:5:range:1:start:0x21:start:20:start:zz", 0, line, one);
}

namespace {

// Runs a FAT corruption with parameters drawn at random on a copy, reads
// them back from its first line, and checks the rest of the lines and the
// image against them: each entry of the range is written when in range,
// else reported in one line.
void ExpectDrawnFatCorruption(Corruption& t, const std::string& description, uint64_t& start,
                              uint64_t& range, uint64_t& value) {
  SCOPED_TRACE(description);
  const std::string image = t.Copy();
  ProcessResult r = t.Run(image, description);
  ASSERT_EQ(r.exit_status, 0);
  std::vector<std::string> lines = Lines(r.err);
  const size_t preamble = Preamble(image).size();
  ASSERT_GT(lines.size(), preamble);
  ASSERT_TRUE(ParseCorruptLine(lines[preamble], "FAT", start, range, value)) << lines[preamble];
  ASSERT_LE(range, 1000u);
  std::vector<uint8_t> expected = t.m_bytes;
  std::vector<std::string> more;
  for (uint64_t c = start; c < start + range; ++c) {
    if (c >= 2 && c <= t.m_geometry.cluster_count + 2)
      PutLe(&expected[t.FatOffset(c)], value, 4);
    else
      more.push_back("Invalid cluster: " + Hex(c) + " (" + t.Total() + " total)");
  }
  EXPECT_EQ(std::vector<std::string>(lines.begin() + preamble + 1, lines.end()), more);
  EXPECT_EQ(DifferingOffsets(expected, ReadFileBytes(image)), std::vector<uint64_t>{});
}

}  // namespace

TEST_F(Corruption, RandomFatDefaultsStayInRange) {
  std::set<uint64_t> starts;
  uint64_t start, range, value;
  for (const char* description : {"fat", "fat:range", "fat:start", "fat:value"}) {
    for (int run = 0; run < 5; ++run) {
      ExpectDrawnFatCorruption(*this, description, start, range, value);
      if (HasFatalFailure()) return;
      EXPECT_LE(start, m_geometry.cluster_count + 2);
      EXPECT_LE(value, 0x7FFFFFFFu);
      starts.insert(start);
    }
  }
  EXPECT_GE(starts.size(), 10u) << "the defaults do not look random";
  // A value that is not hexadecimal, or a keyword without a value, keeps
  // the random default.
  for (const char* description : {"fat:start:zz:range:1:value:5", "fat:range:1:value:5:start"}) {
    ExpectDrawnFatCorruption(*this, description, start, range, value);
    if (HasFatalFailure()) return;
    EXPECT_LE(start, m_geometry.cluster_count + 2);
    EXPECT_EQ(range, 1u);
    EXPECT_EQ(value, 5u);
  }
}

TEST_F(Corruption, RandomBitmapDefaultsStayInRange) {
  std::set<uint64_t> values;
  for (int run = 0; run < 16; ++run) {
    const std::string image = Copy();
    ProcessResult r = Run(image, "bitmap");
    std::vector<std::string> lines = Lines(r.err);
    const size_t preamble = Preamble(image).size();
    ASSERT_GT(lines.size(), preamble);
    uint64_t start, range, value;
    ASSERT_TRUE(ParseCorruptLine(lines[preamble], "BITMAP", start, range, value)) << lines[preamble];
    EXPECT_LE(start, m_geometry.cluster_count + 2);
    EXPECT_LE(range, 1000u);
    EXPECT_LE(value, 1u);
    values.insert(value);
    const uint64_t end = start + range;  // one past the last cluster
    uint64_t bad = 0;
    for (uint64_t c = start; c < end && bad == 0; ++c)
      if (c < 2 || c > m_geometry.cluster_count + 2) bad = c == 0 ? UINT64_MAX : c;
    if (bad != 0) {
      const uint64_t c = bad == UINT64_MAX ? 0 : bad;
      EXPECT_EQ(r.exit_status, 255);
      EXPECT_EQ(std::vector<std::string>(lines.begin() + preamble + 1, lines.end()),
                (std::vector<std::string>{"Invalid cluster: " + Hex(c) + " (" + Total() + " total)",
                                          "Test failed: Invalid cluster " + Hex(c)}));
      EXPECT_EQ(ReadFileBytes(image), m_bytes);
    } else {
      EXPECT_EQ(r.exit_status, 0);
      EXPECT_EQ(std::vector<std::string>(lines.begin() + preamble + 1, lines.end()),
                std::vector<std::string>{BitmapUpdateLine()});
      // Clusters past the bitmap's own bits (ClusterCount + 2) change nothing on disk.
      const uint64_t last = std::min(end, m_geometry.cluster_count + 2);
      EXPECT_EQ(DifferingOffsets(WithBits(m_bytes, start, last - start, value != 0), ReadFileBytes(image)),
                std::vector<uint64_t>{});
    }
  }
  EXPECT_EQ(values.size(), 2u) << "value should be 0 or 1 at random";
}

TEST_F(Corruption, RootOnAnImageEndingBeforeTheRootFails) {
  const std::string image = Copy();
  const uint64_t root_offset = ClusterOffset(m_root);
  std::filesystem::resize_file(image, root_offset);
  const std::vector<uint8_t> before = ReadFileBytes(image);
  ProcessResult r = Run(image, "root");
  EXPECT_EQ(r.exit_status, 255);
  const std::string last = "Test failed: Failed to read root directory sector " + std::to_string(root_offset / 512);
  std::vector<std::string> lines = Lines(r.err);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), last);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 10), Preamble(image));
  EXPECT_EQ(ReadFileBytes(image), before) << "nothing may be written";
}

TEST_F(Corruption, UpcaseOnAVolumeWithoutAnUpcaseTableFails) {
  const std::string image = Copy();
  {
    ExfatLayout layout(image);
    const StructureEntry upcase = layout.UpcaseEntry();
    std::vector<uint8_t> type = layout.Read(upcase.entry_offset, 1);
    type[0] &= 0x7F;
    layout.Write(upcase.entry_offset, type);
    // Without a table no name can be up-cased: keep the directory nameless.
    for (const FoundSet& set : layout.RootFiles())
      for (uint64_t offset : set.entry_offsets) {
        std::vector<uint8_t> t = layout.Read(offset, 1);
        t[0] &= 0x7F;
        layout.Write(offset, t);
      }
  }
  const std::vector<uint8_t> before = ReadFileBytes(image);
  ProcessResult r = Run(image, "upcase");
  EXPECT_EQ(r.exit_status, 255);
  std::vector<std::string> lines = Lines(r.err);
  ASSERT_GE(lines.size(), 11u) << r.err;
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 10), Preamble(image));
  EXPECT_EQ(lines.back().rfind("Test failed: Failed to read upcasetable sector: ", 0), 0u) << lines.back();
  EXPECT_EQ(ReadFileBytes(image), before) << "nothing may be written";
}

TEST_F(Corruption, BothModesInOneRun) {
  const std::string image = Copy();
  ExpectToolRun({"-d", image, "-c", "fat:start:20:range:1:value:5", "-v", m_dir / "no-volume", "-a",
                 "no-such-action"},
                0, Joined(Concat(Preamble(image), {"Corrupt FAT from 20 for 1 clusters, to value 5"})), image,
                WithFat(m_bytes, 0x20, 1, 5));
}

namespace {

// A hand-made volume of sixteen 512-byte sectors: boot region 0-11, FAT at
// 12, one-sector clusters 2 (bitmap), 3 (up-case table) and 4 (root). The
// backup boot region would be sectors 12-23, so most of it lies past the end.
std::vector<uint8_t> TinyVolume(const std::vector<uint8_t>& real_boot_region) {
  std::vector<uint8_t> image(16 * 512, 0);
  std::copy(real_boot_region.begin(), real_boot_region.begin() + 12 * 512, image.begin());
  PutLe(&image[72], 16, 8);   // VolumeLength
  PutLe(&image[80], 12, 4);   // FatOffset
  PutLe(&image[84], 1, 4);    // FatLength
  PutLe(&image[88], 13, 4);   // ClusterHeapOffset
  PutLe(&image[92], 3, 4);    // ClusterCount
  PutLe(&image[96], 4, 4);    // root cluster
  image[108] = 9;
  image[109] = 0;
  uint8_t* fat = &image[12 * 512];
  PutLe(fat, 0xFFFFFFF8, 4);
  for (int entry = 1; entry <= 4; ++entry) PutLe(fat + 4 * entry, 0xFFFFFFFF, 4);
  image[13 * 512] = 0x07;  // clusters 2, 3 and 4 in use
  uint8_t* table = &image[14 * 512];
  uint32_t sum = 0;
  for (int i = 0; i < 128; ++i) {
    PutLe(table + 2 * i, (i >= 'a' && i <= 'z') ? i - 32 : i, 2);
    for (int k = 0; k < 2; ++k) sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + table[2 * i + k];
  }
  uint8_t* root = &image[15 * 512];
  root[0] = kEntryBitmap;
  PutLe(root + 20, 2, 4);
  PutLe(root + 24, 1, 8);
  root[32] = kEntryUpcase;
  PutLe(root + 32 + 4, sum, 4);
  PutLe(root + 32 + 20, 3, 4);
  PutLe(root + 32 + 24, 256, 8);
  return image;
}

}  // namespace

TEST_F(Corruption, BackupPastTheEndOfATinyVolume) {
  const std::vector<uint8_t> tiny = TinyVolume(m_bytes);
  const std::string image = m_dir / "tiny.img";
  WriteNewFile(image, tiny);
  {
    ProcessResult r = RunTool({"-d", image});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    ASSERT_EQ(r.err, Joined(Preamble(image))) << "the tiny volume must load cleanly";
  }
  int written = 0, refused = 0;
  for (int run = 0; run < 40; ++run) {
    WriteNewFile(image, tiny);
    ProcessResult r = Run(image, "backup");
    const std::vector<uint8_t> after = ReadFileBytes(image);
    std::vector<std::string> lines = Lines(r.err);
    ASSERT_EQ(lines.size(), 11u) << r.err;
    if (r.exit_status == 0) {
      ++written;
      EXPECT_EQ(lines.back(), "Corrupted backup boot area");
      for (uint64_t offset : DifferingOffsets(tiny, after)) {
        EXPECT_GE(offset, 13u * 512);
        EXPECT_LT(offset, 16u * 512);
      }
    } else {
      ++refused;
      EXPECT_EQ(r.exit_status, 255);
      // The sector named is the drawn main-region number, 4 to 11.
      unsigned sector = 0;
      char tail = 0;
      ASSERT_EQ(sscanf(lines.back().c_str(), "Test failed: Failed to read main boot sector %u%c", &sector, &tail), 1)
          << lines.back();
      EXPECT_GE(sector, 4u);
      EXPECT_LE(sector, 11u);
      EXPECT_EQ(after, tiny) << "nothing may be written";
    }
  }
  EXPECT_GT(written, 0);
  EXPECT_GT(refused, 0);
}
