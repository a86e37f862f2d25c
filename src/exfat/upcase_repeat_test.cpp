// The closed forms against feeding every byte in turn: a stretch of data
// fed many times, with sums and pending runs chosen where the carry and the
// run markers make the difference.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "exfat/upcase_checksum.h"
#include "exfat/upcase_expander.h"

namespace {

struct Feeder {
  std::vector<uint16_t> table = std::vector<uint16_t>(65536, 0x5555);
  UpcaseChecksum sum;
  UpcaseExpander expander{table};

  void Feed(const std::vector<uint8_t>& bytes, uint64_t zeros) {
    sum.Add(bytes);
    sum.AddZeros(zeros);
    expander.Expand(bytes, false);
    expander.ExpandZeros(zeros / 2);
  }
};

// Feeds `bytes` then `zeros` zero bytes `times` times, once byte by byte
// and once as the loader does: one feeding, one seen, the rest but a tail
// repeated in closed form, the tail.
void ExpectSameAsStepByStep(const std::vector<uint8_t>& lead, const std::vector<uint8_t>& bytes, uint64_t zeros,
                            uint64_t times) {
  Feeder slow, fast;
  slow.Feed(lead, 0);
  fast.Feed(lead, 0);
  for (uint64_t i = 0; i < times; ++i) slow.Feed(bytes, zeros);

  const uint64_t stretch = bytes.size() + zeros;
  const uint64_t tail = UpcaseChecksum::FeedsAfterRepeat(stretch);
  ASSERT_GT(times, 2 + tail);
  fast.Feed(bytes, zeros);
  const uint64_t before = fast.sum.Value();
  fast.expander.BeginStretch();
  fast.Feed(bytes, zeros);
  const UpcaseExpander::Stretch seen = fast.expander.EndStretch();
  fast.sum.Repeat(stretch, before, fast.sum.Value(), times - 2 - tail);
  fast.expander.Repeat(seen, times - 2 - tail);
  for (uint64_t i = 0; i < tail; ++i) fast.Feed(bytes, zeros);

  EXPECT_EQ(fast.sum.Value(), slow.sum.Value());
  EXPECT_EQ(fast.table, slow.table);
  // The pending run carries on into what follows: a value after it shows it.
  const std::vector<uint8_t> probe{0x03, 0x00, 0x41, 0x00};
  slow.Feed(probe, 0);
  fast.Feed(probe, 0);
  EXPECT_EQ(fast.table, slow.table);
}

TEST(UpcaseRepeat, RandomStretchesMatchFeedingEveryByte) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> bytes(2 * (1 + random() % 40));
    // Mostly run markers and small values, so runs, pending runs and
    // plain values all occur.
    for (size_t i = 0; i < bytes.size(); i += 2) {
      const uint64_t kind = random() % 4;
      const uint16_t value = kind == 0 ? 0xFFFF : kind == 1 ? 0 : static_cast<uint16_t>(random() % (kind == 2 ? 8 : 65536));
      bytes[i] = static_cast<uint8_t>(value);
      bytes[i + 1] = static_cast<uint8_t>(value >> 8);
    }
    std::vector<uint8_t> lead(random() % 9);
    for (uint8_t& b : lead) b = static_cast<uint8_t>(random());
    const uint64_t zeros = random() % 3 == 0 ? 2 * (random() % 50) : 0;
    SCOPED_TRACE(round);
    ExpectSameAsStepByStep(lead, bytes, zeros, 40 + random() % 3000);
  }
}

TEST(UpcaseRepeat, CarryHeldWhereNoStepStartsFromAnOddSum) {
  // Thirty-two bytes of 01 make the sum 2^32 - 1: r = 0 with the carry set.
  // Zeros from there never step from an odd r, so the carry is the one from
  // before the repeats, and the sum stays 2^32 - 1.
  const std::vector<uint8_t> ones(32, 0x01);
  ExpectSameAsStepByStep(ones, {0, 0}, 62, 100000);
  ExpectSameAsStepByStep(ones, {0, 0}, 0, 100000);
  // Short stretches: several feedings make up the turn of 32 steps.
  ExpectSameAsStepByStep({0x01}, {0x00, 0x00}, 0, 1000);
  ExpectSameAsStepByStep({0xFE, 0xFF}, {0xFF, 0xFF}, 0, 1000);
}

TEST(UpcaseRepeat, RunsThatCoverNothingSettleWithoutFillingTheTable) {
  // FFFF 0000 pairs: runs of no entries, forever; one value after them.
  ExpectSameAsStepByStep({}, {0xFF, 0xFF, 0x00, 0x00}, 0, 1000000);
  // A marker whose length is the next feeding's first value.
  ExpectSameAsStepByStep({}, {0x02, 0x00, 0xFF, 0xFF}, 0, 1000);
  ExpectSameAsStepByStep({}, {0xFF, 0xFF}, 2, 1000);
  // One entry a feeding fills the table after 65,536 of them; the values
  // after it are counted only.
  ExpectSameAsStepByStep({0x07, 0x00}, {0x09, 0x00}, 0, 300000);
}

}  // namespace
