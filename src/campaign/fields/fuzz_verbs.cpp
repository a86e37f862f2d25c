#include "campaign/fields/fuzz_verbs.h"

#include <bit>

namespace {

// Left out of the boot region checksum: a driver changes them in use.
constexpr size_t kVolumeFlags = 106;
constexpr size_t kPercentInUse = 112;

void FlipBit(std::vector<uint8_t>& value, size_t bit) { value[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8)); }

// Adds `step` (+1 or -1) to the little-endian value, wrapping.
void Step(std::vector<uint8_t>& value, int step) {
  for (uint8_t& byte : value) {
    const uint8_t before = byte;
    byte = static_cast<uint8_t>(byte + step);
    if ((step > 0 && byte > before) || (step < 0 && byte < before)) return;  // no carry or borrow left
  }
}

std::vector<uint8_t> LittleEndian(uint64_t number, size_t width) {
  std::vector<uint8_t> value(width);
  for (size_t i = 0; i < width && i < 8; ++i) value[i] = static_cast<uint8_t>(number >> (8 * i));
  return value;
}

}  // namespace

std::vector<uint8_t> Fuzzed(std::span<const uint8_t> bytes, Verb verb, uint8_t mask, const ClusterTargets& targets) {
  std::vector<uint8_t> value(bytes.begin(), bytes.end());
  if (value.empty()) return value;
  if (mask != 0xFF) {
    if (verb == Verb::kZeroes) value[0] &= static_cast<uint8_t>(~mask);
    if (verb == Verb::kOnes) value[0] |= mask;
    return value;
  }
  const size_t bits = 8 * value.size();
  switch (verb) {
    case Verb::kZeroes: return std::vector<uint8_t>(value.size(), 0x00);
    case Verb::kOnes: return std::vector<uint8_t>(value.size(), 0xFF);
    case Verb::kFirstBit: FlipBit(value, 0); break;
    case Verb::kMiddleBit: FlipBit(value, bits / 2); break;
    case Verb::kLastBit: FlipBit(value, bits - 1); break;
    case Verb::kAdd: Step(value, +1); break;
    case Verb::kSub: Step(value, -1); break;
    case Verb::kSelf: return LittleEndian(targets.self, value.size());
    case Verb::kCrosslink: return LittleEndian(targets.crosslink, value.size());
  }
  return value;
}

uint32_t BootRegionChecksum(std::span<const uint8_t> eleven_sectors) {
  uint32_t checksum = 0;
  for (size_t i = 0; i < eleven_sectors.size(); ++i)
    if (i != kVolumeFlags && i != kVolumeFlags + 1 && i != kPercentInUse)
      checksum = std::rotr(checksum, 1) + eleven_sectors[i];
  return checksum;
}
