#include "campaign/fields/fuzz_verbs.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(FuzzVerbs, CountBitsAndCarriesInTheLittleEndianValue) {
  const ClusterTargets targets{0x1234, 0xabcdef};
  const struct {
    Bytes before;
    Verb verb;
    uint8_t mask;
    Bytes after;
  } cases[] = {
      {{0x10, 0x20, 0x30, 0x40}, Verb::kZeroes, 0xFF, {0x00, 0x00, 0x00, 0x00}},
      {{0x10, 0x20}, Verb::kOnes, 0xFF, {0xff, 0xff}},
      {{0x00, 0x00, 0x00, 0x00}, Verb::kFirstBit, 0xFF, {0x01, 0x00, 0x00, 0x00}},
      {{0x00, 0x00, 0x00, 0x00}, Verb::kMiddleBit, 0xFF, {0x00, 0x00, 0x01, 0x00}},  // bit 16
      {{0x00}, Verb::kMiddleBit, 0xFF, {0x10}},                                      // bit 4
      {{0x00, 0x00, 0x00, 0x80}, Verb::kLastBit, 0xFF, {0x00, 0x00, 0x00, 0x00}},
      {{0xff, 0xff, 0x00, 0x00}, Verb::kAdd, 0xFF, {0x00, 0x00, 0x01, 0x00}},
      {{0xff, 0xff}, Verb::kAdd, 0xFF, {0x00, 0x00}},  // wraps
      {{0x00, 0x00, 0x01, 0x00}, Verb::kSub, 0xFF, {0xff, 0xff, 0x00, 0x00}},
      {{0x00}, Verb::kSub, 0xFF, {0xff}},
      {{0x05, 0x00, 0x00, 0x00}, Verb::kSelf, 0xFF, {0x34, 0x12, 0x00, 0x00}},
      {{0x05, 0x00, 0x00, 0x00}, Verb::kCrosslink, 0xFF, {0xef, 0xcd, 0xab, 0x00}},
      // A flag: only its bits, the others as they were.
      {{0x03}, Verb::kZeroes, 0x02, {0x01}},
      {{0x01}, Verb::kOnes, 0x02, {0x03}},
      // Nothing to change: the row is skipped, never judged.
      {{0x00, 0x00}, Verb::kZeroes, 0xFF, {0x00, 0x00}},
      {{0x01}, Verb::kZeroes, 0x02, {0x01}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Fuzzed(c.before, c.verb, c.mask, targets), c.after) << VerbName(c.verb);
}

TEST(FuzzVerbs, BootChecksumLeavesOutTheBytesADriverChanges) {
  Bytes region(11 * 512, 0);
  region[0] = 0xeb;
  const uint32_t checksum = BootRegionChecksum(region);
  for (const size_t at : {106, 107, 112}) {
    Bytes changed = region;
    changed[at] = 0x5a;
    EXPECT_EQ(BootRegionChecksum(changed), checksum) << at;
  }
  for (const size_t at : {0, 105, 108, 111, 113, 11 * 512 - 1}) {
    Bytes changed = region;
    changed[at] ^= 0x01;
    EXPECT_NE(BootRegionChecksum(changed), checksum) << at;
  }
}

}  // namespace
