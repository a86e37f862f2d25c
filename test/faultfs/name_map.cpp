#include "name_map.h"

#include <cstdint>
#include <cstdio>

namespace faultfs {
namespace {

constexpr size_t kBackingNameMax = 255;
constexpr size_t kKeptPrefix = 200;
// A control character: exFAT never allows it, so no real name collides with
// a stand-in.
constexpr char kMarker = '\x01';

uint64_t Fnv1a(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  return hash;
}

}  // namespace

std::string NameMap::ToBacking(const std::string& name) {
  if (name.size() <= kBackingNameMax) return name;
  char hash[17];
  snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(Fnv1a(name)));
  std::string stand_in = kMarker + name.substr(0, kKeptPrefix) + kMarker + hash;
  m_long_names.emplace(stand_in, name);
  return stand_in;
}

std::string NameMap::FromBacking(const std::string& backing) const {
  auto found = m_long_names.find(backing);
  return found == m_long_names.end() ? backing : found->second;
}

}  // namespace faultfs
