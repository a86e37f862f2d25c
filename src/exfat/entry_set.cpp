#include "exfat/entry_set.h"

namespace {

constexpr size_t kSetChecksumOffset = 2;

}  // namespace

uint16_t AddEntryToChecksum(uint16_t sum, std::span<const uint8_t, 32> entry, bool primary) {
  sum = EntrySetChecksumStep(EntrySetChecksumStep(sum, entry[0]), entry[1]);
  if (!primary) sum = EntrySetChecksumStep(EntrySetChecksumStep(sum, entry[2]), entry[3]);
  // Every entry of every set goes through here: unrolled, a step is a
  // rotate and an add.
#pragma GCC unroll 28
  for (size_t i = kSetChecksumOffset + 2; i < entry.size(); ++i) sum = EntrySetChecksumStep(sum, entry[i]);
  return sum;
}

std::wstring DisplayName(const std::u16string& raw_name) {
  constexpr wchar_t kReplacement = 0xFFFD;
  std::wstring name;
  for (size_t i = 0; i < raw_name.size(); ++i) {
    const char32_t unit = raw_name[i];
    const bool high = unit >= 0xD800 && unit <= 0xDBFF;
    const bool low = unit >= 0xDC00 && unit <= 0xDFFF;
    if (high && i + 1 < raw_name.size() && raw_name[i + 1] >= 0xDC00 && raw_name[i + 1] <= 0xDFFF) {
      name.push_back(static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (raw_name[++i] - 0xDC00)));
    } else if (high || low || unit == 0) {
      name.push_back(kReplacement);
    } else {
      name.push_back(static_cast<wchar_t>(unit));
    }
  }
  return name;
}
