#include "exfat/entry_set.h"

namespace {

constexpr size_t kSetChecksumOffset = 2;

}  // namespace

uint16_t AddEntryToChecksum(uint16_t sum, std::span<const uint8_t, 32> entry, bool primary) {
  for (size_t i = 0; i < entry.size(); ++i) {
    if (primary && (i == kSetChecksumOffset || i == kSetChecksumOffset + 1)) continue;
    sum = EntrySetChecksumStep(sum, entry[i]);
  }
  return sum;
}

uint16_t NameHash(const std::u16string& upcased_name) {
  uint16_t hash = 0;
  for (char16_t unit : upcased_name) {
    hash = EntrySetChecksumStep(hash, static_cast<uint8_t>(unit & 0xFF));
    hash = EntrySetChecksumStep(hash, static_cast<uint8_t>(unit >> 8));
  }
  return hash;
}
