#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

// A bitmap of clusters: cluster c is bit (c - 2) % 8 of byte (c - 2) / 8,
// as on disk. Its bytes come from calloc, whose large blocks are fresh zero
// pages that the system backs with memory only when they are first
// written: a bitmap for four billion clusters costs memory only where its
// bytes are set.
class ClusterBitmap {
 public:
  ClusterBitmap() = default;
  // `bytes` zeros; throws std::bad_alloc when they cannot be had.
  explicit ClusterBitmap(uint64_t bytes);

  uint64_t Size() const { return m_size; }
  // Zero past the end.
  uint8_t Byte(uint64_t index) const { return index < m_size ? m_bytes[index] : 0; }
  uint8_t* Data() { return m_bytes.get(); }
  // Clusters below 2 and past the end read as clear.
  bool Test(uint64_t cluster) const;
  // The cluster must lie within the bitmap. True when the bit changed.
  bool Set(uint64_t cluster, bool value);
  // Clears clusters first to last, which must lie within the bitmap; true
  // when any of them was set.
  bool Clear(uint64_t first, uint64_t last);
  // The first `bytes` bytes of `other` (zeros past its end), written only
  // where they differ, so that zeros over zeros take no memory.
  void CopyFrom(const ClusterBitmap& other, uint64_t bytes);

 private:
  struct Free {
    void operator()(uint8_t* bytes) const { free(bytes); }
  };
  std::unique_ptr<uint8_t[], Free> m_bytes;
  uint64_t m_size = 0;
};
