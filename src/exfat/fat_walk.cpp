// The sector walk over a FAT-chained structure, and the two structures the
// model reads and writes through it: the allocation bitmap (the up-case
// table is the third user, in upcase_table.cpp).
#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

bool Fat::WalkSectors(uint64_t first_cluster, uint64_t length, const ClusterVisitor& on_cluster,
                      const SectorVisitor& on_sector) {
  if (first_cluster < 2) {
    PrintInvalidCluster(first_cluster);
    return false;
  }
  const uint64_t bytes_per_sector = m_boot_sector.BytesPerSector();
  uint64_t left = length;
  uint64_t offset = 0;
  uint64_t cluster = first_cluster;
  // A chain that comes back to a cluster is going round a loop: it ends
  // there as a chain leaving the range does. Together with visitors that
  // read every sector, this bounds a walk by the device's size.
  std::unordered_set<uint64_t> visited;
  for (;;) {
    if (cluster > m_max_cluster || !visited.insert(cluster).second) {
      PrintInvalidCluster(cluster);
      return false;
    }
    on_cluster(cluster);
    const uint64_t first_sector = m_boot_sector.ClusterToSector(cluster);
    for (uint64_t k = 0; k < m_boot_sector.SectorsPerCluster(); ++k) {
      if (left == 0) return true;
      const uint64_t bytes = std::min(bytes_per_sector, left);
      if (!on_sector(SectorChunk{first_sector + k, offset, bytes, bytes == left})) return false;
      offset += bytes;
      left -= bytes;
    }
    if (left == 0) return true;
    cluster = ReadFatEntry(cluster);
    if (cluster <= 1) {
      PrintInvalidCluster(cluster);
      return false;
    }
  }
}

bool Fat::LoadAllocationBitmap(uint64_t first_cluster, uint64_t length) {
  // A second bitmap entry walks its chain again but does not reread it.
  const bool copy = !m_allocation_bitmap_loaded;
  if (copy) {
    m_allocation_bitmap_loaded = true;
    // Only the bits of clusters in range are ever looked at: the bitmap is
    // kept at that size whatever the entry's length says, and reads as zero
    // where the on-disk bitmap is shorter.
    m_allocation_bitmap.assign(m_check_bitmap.size(), 0);
  }
  std::vector<uint8_t> sector(SectorBufferSize());
  return WalkSectors(
      first_cluster, length, [this](uint64_t cluster) { MarkChecked(cluster, true); },
      [&](const SectorChunk& chunk) {
        // Read even when not copied: a sector past the device's end fails
        // the walk in both cases.
        if (!m_device.ReadSectors(1, chunk.sector, sector)) return false;
        if (copy && chunk.offset < m_allocation_bitmap.size()) {
          const uint64_t kept = std::min<uint64_t>(chunk.bytes, m_allocation_bitmap.size() - chunk.offset);
          std::memcpy(&m_allocation_bitmap[chunk.offset], sector.data(), kept);
        }
        return true;
      });
}

bool Fat::UpdateAllocationBitmap() {
  const uint64_t start = m_boot_sector.BitmapStartCluster();
  const uint64_t length = m_boot_sector.BitmapLength();
  LogMessage("UpdateAllocationBitmap at cluster %ld (%ld bytes)\n", static_cast<long>(start),
             static_cast<long>(length));
  // The check bitmap reads as zero past its end.
  auto check_byte = [this](uint64_t i) -> uint8_t { return i < m_check_bitmap.size() ? m_check_bitmap[i] : 0; };
  std::vector<uint8_t> sector(SectorBufferSize());
  const bool written = WalkSectors(
      start, length, [](uint64_t) {},
      [&](const SectorChunk& chunk) {
        // A sector that cannot be read is not written back: it would carry
        // whatever the buffer held before.
        if (!m_device.ReadSectors(1, chunk.sector, sector)) return false;
        for (uint64_t i = 0; i < chunk.bytes; ++i) sector[i] = check_byte(chunk.offset + i);
        m_device.WriteSectors(1, chunk.sector, sector);
        return true;
      });
  if (!written) return false;
  const uint64_t copied = std::min<uint64_t>(length, m_allocation_bitmap.size());
  for (uint64_t i = 0; i < copied; ++i) m_allocation_bitmap[i] = check_byte(i);
  return true;
}
