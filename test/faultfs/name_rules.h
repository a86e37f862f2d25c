#pragma once

#include <cstdint>
#include <string_view>

namespace faultfs {

// exFAT's limit on a name, counted in UTF-16 code units.
constexpr uint64_t kMaxNameUnits = 255;

// UTF-16 code units of a UTF-8 name (4-byte sequences count twice).
uint64_t Utf16Length(std::string_view name);

// Characters exFAT never stores in a name: controls and " * / : < > ? \ |.
bool IsForbiddenChar(unsigned char c);

// 0 when a new entry may carry this name, else -ENAMETOOLONG or -EINVAL.
// `allow_long` lifts the length limit; `accepted` lists forbidden characters
// that are let through anyway.
int CheckNewName(std::string_view name, bool allow_long, std::string_view accepted);

// 32-byte directory entries an entry set for this name occupies: the file
// entry, the stream extension and one name entry per 15 code units.
uint64_t EntrySlots(std::string_view name);

}  // namespace faultfs
