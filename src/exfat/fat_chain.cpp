// The consistency walk of one file's cluster chain, and the freeing of a
// chain that failed it.
#include <algorithm>

#include "exfat/boot_sector.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

namespace {

// Why a chain walk stopped short; the reason is never printed.
enum class ChainFault { kNone, kOutOfRange, kNotAllocated, kAlreadyChecked, kBrokenLink };

}  // namespace

bool Fat::CheckChain(uint64_t first_cluster, bool no_fat_chain, uint64_t data_length) {
  if (first_cluster == 0) return false;
  const uint32_t cluster_bytes = m_boot_sector.SectorsPerCluster() * m_boot_sector.BytesPerSector();
  const uint64_t expected =
      cluster_bytes == 0 ? 0 : data_length / cluster_bytes + (data_length % cluster_bytes != 0 ? 1 : 0);

  ChainFault fault = ChainFault::kNone;
  if (first_cluster == 1) {
    PrintInvalidCluster(first_cluster);
    fault = ChainFault::kOutOfRange;
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
    if (cluster <= bitmap_last) m_changes += m_allocation_bitmap.Clear(cluster, std::min(last, bitmap_last));
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
