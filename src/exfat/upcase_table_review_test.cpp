#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "exfat/fat.h"
#include "exfat/upcase_table.h"

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
