#include "exfat/cluster_bitmap.h"

#include <algorithm>
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
  const uint8_t before = byte;
  byte = value ? before | mask : before & static_cast<uint8_t>(~mask);
  return byte != before;
}

void ClusterBitmap::CopyFrom(const ClusterBitmap& other, uint64_t bytes) {
  for (uint64_t i = 0; i < std::min(bytes, m_size); ++i) {
    const uint8_t value = other.Byte(i);
    if (m_bytes[i] != value) m_bytes[i] = value;
  }
}
