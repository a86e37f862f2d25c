#pragma once

#include <cstdint>

// On-disk integers are little-endian and may sit at any byte offset, so they
// are assembled byte by byte (no unaligned loads on the target).

inline uint64_t ReadLe16(const uint8_t* p) {
  return static_cast<uint64_t>(p[0]) | static_cast<uint64_t>(p[1]) << 8;
}

inline uint64_t ReadLe32(const uint8_t* p) {
  return static_cast<uint64_t>(p[0]) | static_cast<uint64_t>(p[1]) << 8 |
         static_cast<uint64_t>(p[2]) << 16 | static_cast<uint64_t>(p[3]) << 24;
}

inline uint64_t ReadLe64(const uint8_t* p) {
  return ReadLe32(p) | ReadLe32(p + 4) << 32;
}

// Stores a 32-bit value (a FAT entry) at `p`, least significant byte first.
inline void WriteLe32(uint8_t* p, uint32_t value) {
  p[0] = static_cast<uint8_t>(value);
  p[1] = static_cast<uint8_t>(value >> 8);
  p[2] = static_cast<uint8_t>(value >> 16);
  p[3] = static_cast<uint8_t>(value >> 24);
}
