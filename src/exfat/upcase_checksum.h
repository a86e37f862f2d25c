#pragma once

#include <cstdint>
#include <span>

// The up-case table's checksum as the model computes it: a 64-bit
// accumulator, acc = ((acc << 31) & 0xFFFFFFFF) + byte + (acc >> 1) per
// byte, which is the format's 32-bit rotate-right sum as long as no step
// carries past bit 31. The sum never reaches 2^33, so it is r + m * carry
// with m = 2^32 - 1, r = acc mod m and carry 0 or 1: r steps as
// r * 2^-1 + byte (mod m), and the carry changes only on a step from an odd
// r, to whether r + 2 * byte reaches m. That makes a stretch of data fed
// again and again an affine map of r, which `Repeat` applies many times at
// once.
class UpcaseChecksum {
 public:
  uint64_t Value() const { return m_acc; }

  void Add(std::span<const uint8_t> bytes) {
    for (uint8_t b : bytes) m_acc = ((m_acc << 31) & 0xFFFFFFFFu) + b + (m_acc >> 1);
  }
  // `count` zero bytes: once below 2^32 each only rotates the sum right.
  void AddZeros(uint64_t count);

  // Feeds `times` more times a stretch of `stretch_bytes` bytes that took
  // the sum from `before` to `after` when last fed, as far as r goes; the
  // carry is left as it is. The caller then feeds the stretch itself at
  // least `FeedsAfterRepeat(stretch_bytes)` more times, which sets the carry
  // exactly: a run of that many feedings without a step from an odd r can
  // only start from the one r the stretch leaves unchanged, so then every
  // feeding repeated here started from it too and left the carry alone.
  void Repeat(uint64_t stretch_bytes, uint64_t before, uint64_t after, uint64_t times);
  static uint64_t FeedsAfterRepeat(uint64_t stretch_bytes) { return (32 + stretch_bytes - 1) / stretch_bytes + 1; }

 private:
  uint64_t m_acc = 0;
};
