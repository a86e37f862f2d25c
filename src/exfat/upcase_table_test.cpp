#include "exfat/upcase_table.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "exfat/fat.h"
#include "loaded_volume_test_util.h"

namespace {

using exfat_test::InvalidCluster;
using exfat_test::LoadedVolume;
using exfat_test::StderrOf;
using exfat_test::TestImage;
using testsupport::ExfatLayout;

std::vector<uint8_t> Bytes(const std::vector<uint16_t>& values) {
  std::vector<uint8_t> bytes;
  for (uint16_t v : values) {
    bytes.push_back(static_cast<uint8_t>(v));
    bytes.push_back(static_cast<uint8_t>(v >> 8));
  }
  return bytes;
}

// The format's table checksum, written out as the format states it: a
// 32-bit rotate right, then the byte added.
uint32_t TableChecksum(const std::vector<uint8_t>& data) {
  uint32_t sum = 0;
  for (uint8_t b : data) sum = ((sum & 1) ? 0x80000000u : 0u) + (sum >> 1) + b;
  return sum;
}

// The tool's variant: the same steps in a 64-bit accumulator, so a step that
// carries past bit 31 is not folded back.
uint64_t WideTableChecksum(const std::vector<uint8_t>& data) {
  uint64_t sum = 0;
  for (uint8_t b : data) sum = ((sum & 1) ? 0x80000000u : 0u) + (sum >> 1) + b;
  return sum;
}

std::vector<uint16_t> Expand(const std::vector<std::vector<uint16_t>>& chunks, uint64_t* next_index = nullptr) {
  std::vector<uint16_t> table(Fat::kUpcaseTableEntries, 0xEEEE);
  UpcaseExpander expander(table);
  for (size_t i = 0; i < chunks.size(); ++i) {
    const std::vector<uint8_t> bytes = Bytes(chunks[i]);
    expander.Expand(bytes, i + 1 == chunks.size());
  }
  if (next_index) *next_index = expander.NextIndex();
  return table;
}

}  // namespace

TEST(UpcaseChecksum, WideAccumulatorMatchesTheRotateWhileNoStepCarries) {
  const std::vector<uint8_t> data = Bytes({0x0041, 0xFFFF, 0x0010, 0x00E9});
  uint64_t acc = 0;
  for (uint8_t b : data) acc = UpcaseChecksumStep(acc, b);
  EXPECT_EQ(acc, TableChecksum(data));
  // Where a step carries past bit 31 the wide sum keeps the carry.
  EXPECT_EQ(UpcaseChecksumStep(0xFFFFFFFF, 0xFF), uint64_t{0x80000000} + 0xFF + 0x7FFFFFFF);
}

TEST(UpcaseExpander, StoresValuesAndExpandsIdentityRuns) {
  uint64_t next = 0;
  const std::vector<uint16_t> table = Expand({{0x0041, 0xFFFF, 3, 0x0042}}, &next);
  EXPECT_EQ(next, 5u);
  EXPECT_EQ(std::vector<uint16_t>(table.begin(), table.begin() + 6),
            (std::vector<uint16_t>{0x0041, 1, 2, 3, 0x0042, 0xEEEE}));
}

TEST(UpcaseExpander, RunMarkerCarriesAcrossChunks) {
  const std::vector<uint16_t> table = Expand({{0x0061, 0xFFFF}, {2, 0x0062}});
  EXPECT_EQ(std::vector<uint16_t>(table.begin(), table.begin() + 5),
            (std::vector<uint16_t>{0x0061, 1, 2, 0x0062, 0xEEEE}));
}

TEST(UpcaseExpander, FinalMarkerOfTheTableIsAMapping) {
  uint64_t next = 0;
  const std::vector<uint16_t> table = Expand({{0xFFFF, 2}, {0x0043, 0xFFFF}}, &next);
  EXPECT_EQ(next, 4u);
  EXPECT_EQ(std::vector<uint16_t>(table.begin(), table.begin() + 4), (std::vector<uint16_t>{0, 1, 0x0043, 0xFFFF}));
  // The same marker at the end of a chunk that is not the last opens a run.
  const std::vector<uint16_t> open_run = Expand({{0x0043, 0xFFFF}, {2}});
  EXPECT_EQ(std::vector<uint16_t>(open_run.begin(), open_run.begin() + 3), (std::vector<uint16_t>{0x0043, 1, 2}));
}

TEST(UpcaseExpander, DataPastTheTablesEndIsCountedNotStored) {
  // Two runs of 0xFFFE and then plain values: far more than 65,536 entries.
  std::vector<uint16_t> data{0xFFFF, 0xFFFE, 0xFFFF, 0xFFFE};
  for (int i = 0; i < 100; ++i) data.push_back(0x0100);
  uint64_t next = 0;
  const std::vector<uint16_t> table = Expand({data}, &next);
  EXPECT_EQ(next, 2u * 0xFFFE + 100);
  EXPECT_EQ(table.size(), Fat::kUpcaseTableEntries);
  EXPECT_EQ(table[0xFFFD], 0xFFFD);
  EXPECT_EQ(table[0xFFFE], 0xFFFE);  // the second run's first entry, not beyond
  EXPECT_EQ(table[0xFFFF], 0xFFFF);
}

TEST(UpcaseExpander, OddTrailingByteIsNotAValue) {
  std::vector<uint16_t> table(Fat::kUpcaseTableEntries, 0xEEEE);
  UpcaseExpander expander(table);
  const std::vector<uint8_t> bytes{0x41, 0x00, 0x42};
  expander.Expand(bytes, true);
  EXPECT_EQ(expander.NextIndex(), 1u);
  EXPECT_EQ(table[0], 0x41);
  EXPECT_EQ(table[1], 0xEEEE);
}

TEST(UpcaseTable, MkfsTableLoadsAndMatchesAnIndependentExpansion) {
  TestImage image(64 * 1024 * 1024, 4096);
  ExfatLayout layout(image.path);
  const testsupport::StructureEntry upcase = layout.UpcaseEntry();
  LoadedVolume volume(image.path);
  EXPECT_EQ(StderrOf([&] {
              EXPECT_TRUE(volume.fat->LoadUpcaseTable(upcase.first_cluster, upcase.data_length, upcase.table_checksum));
            }),
            "");
  const std::vector<uint16_t> expected = layout.UpcaseTable();
  ASSERT_EQ(expected.size(), Fat::kUpcaseTableEntries);
  for (size_t i = 0; i < expected.size(); ++i)
    ASSERT_EQ(volume.fat->UpcaseEntry(static_cast<uint16_t>(i)), expected[i]) << "entry " << i;
  std::u16string name = u"abc\u00e9z";
  volume.fat->UpcaseName(name);
  EXPECT_EQ(name, layout.UpcaseWithTable(u"abc\u00e9z"));
  // Its clusters count as used by the check walk.
  for (uint64_t c : layout.Clusters(upcase.first_cluster, upcase.data_length, false))
    EXPECT_TRUE(volume.fat->IsChecked(c));
  // Any other checksum fails.
  EXPECT_FALSE(volume.fat->LoadUpcaseTable(upcase.first_cluster, upcase.data_length, upcase.table_checksum ^ 1));
}

TEST(UpcaseTable, CraftedTableEndingInMarkerLoadsAcrossSectors) {
  TestImage image(32 * 1024 * 1024, 4096);
  ExfatLayout layout(image.path);
  const std::vector<uint64_t> cluster = layout.Allocate(1, false, false);
  // 300 values: the data crosses from the cluster's first sector into its
  // second, and a run opened in the first sector ends in the second.
  std::vector<uint16_t> values;
  for (int i = 0; i < 255; ++i) values.push_back(static_cast<uint16_t>(0x0100 + i));
  values.push_back(0xFFFF);
  values.push_back(40);
  for (int i = 0; i < 42; ++i) values.push_back(static_cast<uint16_t>(0x2000 + i));
  values.push_back(0xFFFF);
  const std::vector<uint8_t> data = Bytes(values);
  ASSERT_EQ(data.size(), 600u);
  // Some step of these data carries past bit 31, so the 64-bit sum differs
  // from the format's: the tool accepts only its own sum.
  const uint64_t wide = WideTableChecksum(data);
  ASSERT_LE(wide, UINT32_MAX);
  ASSERT_NE(wide, TableChecksum(data));
  layout.Write(layout.ClusterOffset(cluster[0]), data);

  LoadedVolume volume(image.path);
  EXPECT_FALSE(volume.fat->LoadUpcaseTable(cluster[0], data.size(), TableChecksum(data)));
  ASSERT_EQ(StderrOf([&] { EXPECT_TRUE(volume.fat->LoadUpcaseTable(cluster[0], data.size(), static_cast<uint32_t>(wide))); }),
            "");
  Fat& fat = *volume.fat;
  EXPECT_EQ(fat.UpcaseEntry(0), 0x0100);
  EXPECT_EQ(fat.UpcaseEntry(254), 0x01FE);
  EXPECT_EQ(fat.UpcaseEntry(255), 255);
  EXPECT_EQ(fat.UpcaseEntry(294), 294);
  EXPECT_EQ(fat.UpcaseEntry(295), 0x2000);
  EXPECT_EQ(fat.UpcaseEntry(336), 0x2029);
  EXPECT_EQ(fat.UpcaseEntry(337), 0xFFFF);
  EXPECT_EQ(fat.UpcaseEntry(338), 338);  // never reached: maps to itself
}

// Compressed data of runs that reach past the table's end: the first run
// fills the table with identity entries, every later one only moves the
// index. Each run is four bytes of data but 65,534 entries long, so 256 KiB
// of such data stand for 4,294,836,224 entries.
TEST(UpcaseExpanderRuns, RunsPastTheTableEndAreCountedAtOnce) {
  constexpr uint64_t kRuns = 65536;
  constexpr uint16_t kRunLength = 0xFFFE;
  std::vector<uint8_t> data;
  for (uint64_t i = 0; i < kRuns; ++i) data.insert(data.end(), {0xFF, 0xFF, 0xFE, 0xFF});

  std::vector<uint16_t> table(Fat::kUpcaseTableEntries, 0xEEEE);
  UpcaseExpander expander(table);
  const auto start = std::chrono::steady_clock::now();
  expander.Expand(data, true);
  const auto elapsed = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(expander.NextIndex(), kRuns * kRunLength);
  // The first run covers entries 0 to 65533, the second the last two.
  for (size_t i = 0; i < table.size(); ++i) ASSERT_EQ(table[i], i) << i;
  EXPECT_LT(elapsed, std::chrono::seconds(1));
}

// A run that begins inside the table and ends past it stores the entries
// that fit and counts the rest.
TEST(UpcaseExpanderRuns, RunCrossingTheTableEndStoresWhatFits) {
  std::vector<uint8_t> data;
  // 65,530 values of 0x0041, then a run of 10 identity entries, then 'B'.
  for (int i = 0; i < 65530; ++i) data.insert(data.end(), {0x41, 0x00});
  data.insert(data.end(), {0xFF, 0xFF, 0x0A, 0x00, 0x42, 0x00});

  std::vector<uint16_t> table(Fat::kUpcaseTableEntries, 0xEEEE);
  UpcaseExpander expander(table);
  expander.Expand(data, true);

  EXPECT_EQ(expander.NextIndex(), 65530u + 10u + 1u);
  EXPECT_EQ(table[65529], 0x0041);
  for (size_t i = 65530; i < table.size(); ++i) EXPECT_EQ(table[i], i) << i;
}