#include "exfat/cluster_bitmap.h"

#include <algorithm>
#include <cstring>
#include <new>

ClusterBitmap::ClusterBitmap(uint64_t bytes) : m_size(bytes) {
  if (bytes == 0) return;
  m_bytes.reset(static_cast<uint8_t*>(calloc(bytes, 1)));
  if (!m_bytes) throw std::bad_alloc();
}

bool ClusterBitmap::Test(uint64_t cluster) const {
  return cluster >= 2 && (Byte((cluster - 2) / 8) >> ((cluster - 2) % 8) & 1) != 0;
}

bool ClusterBitmap::Set(uint64_t cluster, bool value) {
  uint8_t& byte = m_bytes[(cluster - 2) / 8];
  const uint8_t mask = static_cast<uint8_t>(1u << ((cluster - 2) % 8));
  const uint8_t after = value ? byte | mask : byte & static_cast<uint8_t>(~mask);
  if (after == byte) return false;  // untouched pages stay unbacked
  byte = after;
  return true;
}

bool ClusterBitmap::Clear(uint64_t first, uint64_t last) {
  bool changed = false;
  uint64_t cluster = first;
  for (; cluster <= last && (cluster - 2) % 8 != 0; ++cluster) changed |= Set(cluster, false);
  // Whole bytes: only those with a bit set are written.
  const uint64_t whole = (last + 1 - cluster) / 8;
  uint8_t* const begin = m_bytes.get() + (cluster - 2) / 8;
  for (uint8_t* byte = begin; (byte = std::find_if(byte, begin + whole, [](uint8_t b) { return b != 0; })) != begin + whole;) {
    *byte++ = 0;
    changed = true;
  }
  for (cluster += whole * 8; cluster <= last; ++cluster) changed |= Set(cluster, false);
  return changed;
}

void ClusterBitmap::CopyFrom(const ClusterBitmap& other, uint64_t bytes) {
  // A page at a time, written only where it differs.
  constexpr uint64_t kPage = 4096;
  static const uint8_t kZeros[kPage] = {};
  const uint64_t end = std::min(bytes, m_size);
  for (uint64_t at = 0; at < end; at += kPage) {
    const uint64_t length = std::min(kPage, end - at);
    const uint64_t from_other = at < other.m_size ? std::min(length, other.m_size - at) : 0;
    const uint8_t* source = from_other != 0 ? other.m_bytes.get() + at : kZeros;
    if (memcmp(m_bytes.get() + at, source, from_other) != 0) memcpy(m_bytes.get() + at, source, from_other);
    if (memcmp(m_bytes.get() + at + from_other, kZeros, length - from_other) != 0)
      memset(m_bytes.get() + at + from_other, 0, length - from_other);
  }
}
