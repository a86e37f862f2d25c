// The sector walk over a FAT-chained structure, and the two structures the
// model reads and writes through it: the allocation bitmap (the up-case
// table is the third user, in upcase_table.cpp).
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

bool Fat::WalkSectors(uint64_t first_cluster, uint64_t length, const ClusterVisitor& on_cluster,
                      const SectorVisitor& on_sector, const SettledCheck& settled) {
  if (first_cluster < 2) {
    PrintInvalidCluster(first_cluster);
    return false;
  }
  const uint64_t bytes_per_sector = m_boot_sector.BytesPerSector();
  uint64_t left = length;
  uint64_t offset = 0;
  uint64_t cluster = first_cluster;
  // Where each cluster was first met, to tell a loop and its length.
  std::unordered_map<uint64_t, uint64_t> first_met;
  for (;;) {
    if (cluster > m_max_cluster) {
      PrintInvalidCluster(cluster);
      return false;
    }
    const auto [met, first_time] = first_met.try_emplace(cluster, offset);
    if (!first_time) {
      const Lap lap = settled(offset, offset - met->second);
      if (lap != Lap::kGoOn) return lap == Lap::kSettled;
    }
    on_cluster(cluster);
    const uint64_t first_sector = m_boot_sector.ClusterToSector(cluster);
    for (uint64_t k = 0; k < m_boot_sector.SectorsPerCluster(); ++k) {
      if (left == 0) return true;
      const uint64_t bytes = std::min(bytes_per_sector, left);
      const uint64_t rest = std::min((left - bytes + bytes_per_sector - 1) / bytes_per_sector,
                                     m_boot_sector.SectorsPerCluster() - 1 - k);
      const Next next = on_sector(SectorChunk{first_sector + k, offset, bytes, bytes == left, rest});
      if (next == Next::kGiveUp) return false;
      offset += bytes;
      left -= bytes;
      if (next == Next::kSkipCluster) {
        const uint64_t skipped = std::min(rest * bytes_per_sector, left);
        offset += skipped;
        left -= skipped;
        k += rest;
      }
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
  // A second bitmap entry walks its chain again but does not read it.
  const bool copy = !m_allocation_bitmap_loaded;
  m_changes += copy;
  if (copy) {
    m_allocation_bitmap_loaded = true;
    // Only the bits of clusters in range are ever looked at: the bitmap is
    // kept at that size whatever the entry's length says, and reads as zero
    // where the on-disk bitmap is shorter.
    m_allocation_bitmap = ClusterBitmap(m_check_bitmap.Size());
  }
  const uint64_t kept = copy ? m_allocation_bitmap.Size() : 0;
  std::vector<uint8_t> sector(kSectorBytes);
  return WalkSectors(
      first_cluster, length, [this](uint64_t cluster) { MarkChecked(cluster, true); },
      [&](const SectorChunk& chunk) {
        // Past the kept bytes nothing is copied: the rest of the cluster can
        // change nothing.
        if (chunk.offset >= kept) return Next::kSkipCluster;
        // A sector that cannot be read leaves the buffer as it was.
        m_device.ReadSectors(1, chunk.sector, sector);
        // Past the device sector the chunk is zeros, as the bitmap already is.
        const uint64_t bytes = std::min({chunk.bytes, kept - chunk.offset, uint64_t{kSectorBytes}});
        std::memcpy(m_allocation_bitmap.Data() + chunk.offset, sector.data(), bytes);
        return Next::kGoOn;
      },
      // Past the kept bytes a lap marks the same clusters again.
      [&](uint64_t offset, uint64_t) { return offset >= kept ? Lap::kSettled : Lap::kGoOn; });
}

bool Fat::UpdateAllocationBitmap() {
  const uint64_t start = m_boot_sector.BitmapStartCluster();
  const uint64_t length = m_boot_sector.BitmapLength();
  LogMessage("UpdateAllocationBitmap at cluster %ld (%ld bytes)\n", static_cast<long>(start),
             static_cast<long>(length));
  // The check bitmap reads as zero past its end.
  std::vector<uint8_t> sector(kSectorBytes);
  const bool written = WalkSectors(
      start, length, [](uint64_t) {},
      [&](const SectorChunk& chunk) {
        // A sector that cannot be read leaves the buffer as it was, and is
        // written back so.
        const bool read = m_device.ReadSectors(1, chunk.sector, sector);
        // Past the device sector the check bytes have nowhere to go.
        for (uint64_t i = 0; i < std::min(chunk.bytes, uint64_t{kSectorBytes}); ++i)
          sector[i] = m_check_bitmap.Byte(chunk.offset + i);
        // Zero sectors past the end of an image, and all the cluster's
        // others after them, would only grow it with zeros: its last one
        // grows it as far.
        const bool zeros_past_end = !read && chunk.offset >= m_check_bitmap.Size() &&
                                    chunk.bytes >= kSectorBytes &&
                                    chunk.sector >= static_cast<uint64_t>(m_device.SectorCount()) &&
                                    chunk.sector + chunk.rest >= chunk.sector;
        m_device.WriteSectors(1, zeros_past_end ? chunk.sector + chunk.rest : chunk.sector, sector);
        return zeros_past_end ? Next::kSkipCluster : Next::kGoOn;
      },
      // Once a whole lap has written only the zeros past the check bitmap,
      // every later lap writes the same.
      [&](uint64_t offset, uint64_t lap_bytes) {
        return offset >= m_check_bitmap.Size() + lap_bytes ? Lap::kSettled : Lap::kGoOn;
      });
  if (!written) return false;
  m_allocation_bitmap.CopyFrom(m_check_bitmap, length);
  return true;
}
