// The consistency walk of one file's cluster chain, and the freeing of a
// chain that failed it.
#include <algorithm>
#include <bit>
#include <cstring>

#include "exfat/boot_sector.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

namespace {

// Why a chain walk stopped short; the reason is never printed.
enum class ChainFault { kNone, kOutOfRange, kNotAllocated, kAlreadyChecked, kBrokenLink };

}  // namespace

bool Fat::CheckChain(uint64_t first_cluster, bool no_fat_chain, uint64_t data_length) {
  if (first_cluster == 0) return false;
  // Two powers of two: a power of two, or 0 once it overflows. Shifted
  // rather than divided, as every file of a scan comes through here.
  const uint32_t cluster_bytes = m_boot_sector.SectorsPerCluster() * m_boot_sector.BytesPerSector();
  const uint64_t expected = cluster_bytes == 0 ? 0
                            : (data_length >> std::countr_zero(cluster_bytes)) +
                                  ((data_length & (cluster_bytes - 1)) != 0 ? 1 : 0);

  ChainFault fault = ChainFault::kNone;
  if (first_cluster == 1) {
    PrintInvalidCluster(first_cluster);
    fault = ChainFault::kOutOfRange;
  }
  if (no_fat_chain && fault == ChainFault::kNone) {
    if (CheckRun(first_cluster, expected)) return true;
    FreeChain(first_cluster, no_fat_chain, expected);
    return false;
  }
  // Every pass marks a cluster not marked before (or fails), so the walk
  // ends within the range's size even on a looping chain.
  uint64_t cluster = first_cluster;
  uint64_t count = 1;
  while (fault == ChainFault::kNone) {
    if (cluster > m_max_cluster) {
      PrintInvalidCluster(cluster);
      fault = ChainFault::kOutOfRange;
    } else if (!m_allocation_bitmap.Test(cluster)) {
      fault = ChainFault::kNotAllocated;
    } else if (m_check_bitmap.Test(cluster)) {
      fault = ChainFault::kAlreadyChecked;
    } else {
      MarkChecked(cluster, true);
      const uint64_t next = NextCluster(cluster, no_fat_chain, expected - count);
      if (next == kEndOfChain) return expected == count;
      ++count;
      if (!InRange(next)) {
        PrintInvalidCluster(next);
        fault = ChainFault::kBrokenLink;
      }
      cluster = next;
    }
  }
  FreeChain(first_cluster, no_fat_chain, expected);
  return false;
}

bool Fat::CheckRun(uint64_t first_cluster, uint64_t expected) {
  if (first_cluster > m_max_cluster) {
    PrintInvalidCluster(first_cluster);
    return false;
  }
  // The whole run, or up to the top of the range; a length of 0 clusters
  // never ends before the top.
  const bool ends = expected != 0 && expected - 1 <= m_max_cluster - first_cluster;
  const uint64_t last = ends ? first_cluster + expected - 1 : m_max_cluster;
  uint64_t unusable = first_cluster;
  if (last - first_cluster < 64) {
    // Most files: a few clusters, gone through one by one.
    for (; unusable <= last && m_allocation_bitmap.Test(unusable) && !m_check_bitmap.Test(unusable); ++unusable)
      m_changes += m_check_bitmap.Set(unusable, true);
  } else {
    unusable = FirstUnusable(first_cluster, last);
    if (unusable > first_cluster) m_changes += m_check_bitmap.Fill(first_cluster, unusable - 1, true);
  }
  if (unusable <= last) return false;
  if (ends) return true;
  NextCluster(m_max_cluster, true, 1);  // its two lines for the cluster past the top
  PrintInvalidCluster(m_max_cluster + 1);
  return false;
}

uint64_t Fat::FirstUnusable(uint64_t first, uint64_t last) const {
  constexpr uint64_t kPage = ClusterBitmap::kPageBytes;
  for (uint64_t cluster = first; cluster <= last;) {
    const uint64_t bit = cluster - 2;
    if (bit % 8 == 0 && last - cluster >= 7) {
      const uint64_t byte = bit / 8;
      const uint64_t page = byte / kPage;
      const uint64_t from = byte % kPage;
      const uint64_t stop = std::min(kPage, from + (last - cluster + 1) / 8);
      // A whole page at once where it is known to be all allocated, none met.
      if (from == 0 && stop == kPage && m_allocation_bitmap.KnownFilled(page, true) &&
          m_check_bitmap.KnownFilled(page, false)) {
        cluster += kPage * 8;
        continue;
      }
      // Else 64 clusters, then eight, at a time while all are allocated and unmet.
      const uint8_t* allocated = m_allocation_bitmap.PageBytes(page);
      const uint8_t* met = m_check_bitmap.PageBytes(page);
      uint64_t i = from;
      for (uint64_t a, m; i + 8 <= stop; i += 8) {
        memcpy(&a, allocated + i, 8);
        memcpy(&m, met + i, 8);
        if ((a & ~m) != ~uint64_t{0}) break;
      }
      while (i < stop && (allocated[i] & ~met[i] & 0xFF) == 0xFF) ++i;
      if (i > from) {
        cluster += (i - from) * 8;
        continue;
      }
    }
    if (!m_allocation_bitmap.Test(cluster) || m_check_bitmap.Test(cluster)) return cluster;
    ++cluster;
  }
  return last + 1;
}

void Fat::FreeChain(uint64_t first_cluster, bool no_fat_chain, uint64_t clusters) {
  if (first_cluster < 2) {
    PrintInvalidCluster(first_cluster);
    return;
  }
  uint64_t left = clusters - 1;
  uint64_t cluster = first_cluster;
  if (no_fat_chain) {
    // A run of consecutive clusters: cleared at once, up to its end or to
    // the top of the range, whichever comes first.
    if (cluster > m_max_cluster) {
      PrintInvalidCluster(cluster);
      return;
    }
    const uint64_t last = left <= m_max_cluster - cluster ? cluster + left : m_max_cluster;
    const uint64_t bitmap_last = m_allocation_bitmap.Size() * 8 + 1;  // clusters past it read as clear
    if (cluster <= bitmap_last) m_changes += m_allocation_bitmap.Fill(cluster, std::min(last, bitmap_last), false);
    if (last - cluster == left) {
      ++m_freed_chains;
      return;
    }
    NextCluster(m_max_cluster, true, 1);  // its two lines for the cluster past the top
    PrintInvalidCluster(m_max_cluster + 1);
    return;
  }
  // A chain through the FAT may loop; from its first repeated cluster on,
  // it would only clear the same bits again without end. The loop is found
  // as the chain goes (Brent's method), at most two laps late, which clears
  // nothing new.
  uint64_t marker = cluster;
  uint64_t steps = 0;
  uint64_t power = 1;
  for (;;) {
    if (cluster > m_max_cluster) {
      PrintInvalidCluster(cluster);
      return;
    }
    ClearAllocated(cluster);
    const uint64_t next = NextCluster(cluster, false, left--);
    if (next == kEndOfChain) {
      ++m_freed_chains;
      return;
    }
    if (next < 2) {
      PrintInvalidCluster(next);
      return;
    }
    if (next == marker) return;
    if (++steps == power) {
      marker = next;
      power *= 2;
      steps = 0;
    }
    cluster = next;
  }
}

void Fat::ClearAllocated(uint64_t cluster) {
  if ((cluster - 2) / 8 < m_allocation_bitmap.Size()) m_changes += m_allocation_bitmap.Set(cluster, false);
}
