#include "name_rules.h"

#include <cerrno>

namespace faultfs {

uint64_t Utf16Length(std::string_view name) {
  uint64_t units = 0;
  for (unsigned char c : name) {
    if ((c & 0xC0) == 0x80) continue;  // continuation byte
    units += (c >= 0xF0) ? 2 : 1;      // a 4-byte sequence needs a surrogate pair
  }
  return units;
}

bool IsForbiddenChar(unsigned char c) {
  if (c < 0x20) return true;
  switch (c) {
    case '"': case '*': case '/': case ':': case '<': case '>': case '?': case '\\': case '|':
      return true;
    default:
      return false;
  }
}

int CheckNewName(std::string_view name, bool allow_long, std::string_view accepted) {
  if (!allow_long && Utf16Length(name) > kMaxNameUnits) return -ENAMETOOLONG;
  for (unsigned char c : name)
    if (IsForbiddenChar(c) && accepted.find(static_cast<char>(c)) == std::string_view::npos)
      return -EINVAL;
  return 0;
}

uint64_t EntrySlots(std::string_view name) {
  return 2 + (Utf16Length(name) + 14) / 15;
}

}  // namespace faultfs
