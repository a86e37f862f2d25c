#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

// A bitmap of clusters: cluster c is bit (c - 2) % 8 of byte (c - 2) / 8,
// as on disk. It is kept as pages that are shared until written: a page of
// zeros takes no memory, pages filled with ones share one page, and a
// bitmap read round a looping chain, the same bytes again and again, keeps
// each distinct page once. A bitmap for four billion clusters costs memory
// only for what differs.
class ClusterBitmap {
 public:
  static constexpr uint64_t kPageBytes = 4096;
  using Page = std::array<uint8_t, kPageBytes>;

  // Remembers the pages shared so far, for a bitmap filled page by page.
  class Sharing {
   public:
    // The shared page equal to `page`, which becomes shared if none is.
    std::shared_ptr<Page> Find(std::shared_ptr<Page> page);

   private:
    std::unordered_map<std::string_view, std::shared_ptr<Page>> m_pages;
  };

  ClusterBitmap() = default;
  // `bytes` zeros.
  explicit ClusterBitmap(uint64_t bytes);

  uint64_t Size() const { return m_size; }
  // Zero past the end.
  uint8_t Byte(uint64_t index) const {
    if (index >= m_size) return 0;
    const Page* page = m_pages[index / kPageBytes].get();
    return page != nullptr ? (*page)[index % kPageBytes] : 0;
  }
  // Clusters below 2 and past the end read as clear.
  bool Test(uint64_t cluster) const {
    return cluster >= 2 && (Byte((cluster - 2) / 8) >> ((cluster - 2) % 8) & 1) != 0;
  }
  // The cluster must lie within the bitmap. True when the bit changed.
  bool Set(uint64_t cluster, bool value) {
    const uint64_t index = (cluster - 2) / 8;
    const uint8_t mask = static_cast<uint8_t>(1u << ((cluster - 2) % 8));
    const uint8_t before = Byte(index);
    const uint8_t after = value ? before | mask : before & static_cast<uint8_t>(~mask);
    if (after == before) return false;  // a shared page stays shared
    Writable(index / kPageBytes)[index % kPageBytes] = after;
    return true;
  }
  // Sets or clears clusters first to last, which must lie within the
  // bitmap; true when any of them changed.
  bool Fill(uint64_t first, uint64_t last, bool value);
  // Puts `bytes` at `offset`; they must lie within the bitmap.
  void Write(uint64_t offset, std::span<const uint8_t> bytes);
  // True when the bytes from `offset` on, `bytes` of them, are all zero
  // (past the end they are).
  bool IsZero(uint64_t offset, uint64_t bytes) const;
  // The page of `index` made to share memory with an equal page met before.
  void Share(uint64_t index, Sharing& sharing);
  // Pages `first` on, `count` of them, each made the page `period` pages
  // before it.
  void RepeatPages(uint64_t first, uint64_t period, uint64_t count);
  // The first `bytes` bytes of `other` (zeros past its end); the rest of
  // this bitmap stays as it is.
  void CopyFrom(const ClusterBitmap& other, uint64_t bytes);
  // The bytes of page `index`, all of them, zeros past the end.
  const uint8_t* PageBytes(uint64_t index) const;
  // True when page `index` is known, without looking at its bytes, to be
  // all zeros or (`ones`) all ones.
  bool KnownFilled(uint64_t index, bool ones) const;

 private:
  Page& Writable(uint64_t index);

  std::vector<std::shared_ptr<Page>> m_pages;  // null: all zeros
  uint64_t m_size = 0;
};
