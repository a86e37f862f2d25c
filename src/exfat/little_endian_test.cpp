#include "exfat/little_endian.h"

#include <gtest/gtest.h>

#include <array>

TEST(LittleEndian, ReadsLeastSignificantByteFirstAtAnyOffset) {
  const std::array<uint8_t, 11> bytes{0xAA, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88, 0xFF, 0xBB};
  EXPECT_EQ(ReadLe16(&bytes[1]), 0x0201u);
  EXPECT_EQ(ReadLe32(&bytes[1]), 0x04030201u);
  EXPECT_EQ(ReadLe64(&bytes[1]), 0x8807060504030201u);
  // High bytes widen without sign extension.
  EXPECT_EQ(ReadLe16(&bytes[8]), 0xFF88u);
  EXPECT_EQ(ReadLe32(&bytes[7]), 0xBBFF8807u);
}

TEST(LittleEndian, WriteLe32StoresFourBytesAndNothingElse) {
  std::array<uint8_t, 6> bytes{0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
  WriteLe32(&bytes[1], 0x0FFFFFF7);
  EXPECT_EQ(bytes, (std::array<uint8_t, 6>{0x11, 0xF7, 0xFF, 0xFF, 0x0F, 0x11}));
  EXPECT_EQ(ReadLe32(&bytes[1]), 0x0FFFFFF7u);
}
