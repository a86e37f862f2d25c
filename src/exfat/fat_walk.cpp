// The sector walk over a FAT-chained structure, and the two structures the
// model reads and writes through it: the allocation bitmap (the up-case
// table is the third user, in upcase_table.cpp).
#include <algorithm>
#include <unordered_map>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

bool Fat::WalkSectors(uint64_t first_cluster, uint64_t length, const ClusterVisitor& on_cluster,
                      const SectorVisitor& on_sector, const SettledCheck& settled, const LapSkip& skip_laps) {
  if (first_cluster < 2) {
    PrintInvalidCluster(first_cluster);
    return false;
  }
  const uint64_t bytes_per_sector = m_boot_sector.BytesPerSector();
  uint64_t left = length;
  uint64_t offset = 0;
  uint64_t cluster = first_cluster;
  // Where each cluster was first met, with the FAT cache as it was then
  // (an unreadable FAT sector leaves the cache holding another's entries,
  // so the same cluster can lead elsewhere), to tell a loop and its length.
  std::unordered_map<std::string, uint64_t> first_met;
  uint64_t lap = 0;  // the bytes one lap covers, once the chain has come round
  for (;;) {
    if (cluster > m_max_cluster) {
      PrintInvalidCluster(cluster);
      return false;
    }
    const std::string point = std::to_string(cluster) + FatCacheKey();
    const auto [met, first_time] = first_met.try_emplace(point, offset);
    if (!first_time) {
      lap = offset - met->second;
      met->second = offset;
      const Lap next = settled(offset, lap);
      if (next != Lap::kGoOn) return next == Lap::kSettled;
      if (const uint64_t laps = skip_laps ? skip_laps(offset, lap, left) : 0; laps != 0) {
        offset += laps * lap;
        left -= laps * lap;
        first_met.clear();
        first_met.emplace(point, offset);
      }
    }
    on_cluster(cluster);
    const uint64_t first_sector = m_boot_sector.ClusterToSector(cluster);
    for (uint64_t k = 0; k < m_boot_sector.SectorsPerCluster(); ++k) {
      if (left == 0) return true;
      // Round a loop, the walk may settle at any sector.
      if (const Lap now = lap != 0 ? settled(offset, lap) : Lap::kGoOn; now != Lap::kGoOn) return now == Lap::kSettled;
      const uint64_t bytes = std::min(bytes_per_sector, left);
      const uint64_t rest = std::min((left - bytes + bytes_per_sector - 1) / bytes_per_sector,
                                     m_boot_sector.SectorsPerCluster() - 1 - k);
      const Next next = on_sector(SectorChunk{first_sector + k, offset, bytes, bytes == left, rest});
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
  // Each page, once filled, shares memory with an equal one filled before:
  // round a looping chain the same bytes come again and again.
  ClusterBitmap::Sharing sharing;
  uint64_t filling = 0;
  if (copy) Prefetch(first_cluster, false, std::min(length, kept));
  const bool walked = WalkSectors(
      first_cluster, length, [this](uint64_t cluster) { MarkChecked(cluster, true); },
      [&](const SectorChunk& chunk) {
        // Past the kept bytes nothing is copied: the rest of the cluster can
        // change nothing.
        if (chunk.offset >= kept) return Next::kSkipCluster;
        // A sector that cannot be read leaves the buffer as it was.
        m_device.ReadSectors(1, chunk.sector, sector, chunk.rest);
        // Past the device sector the chunk is zeros, as the bitmap already is.
        const uint64_t bytes = std::min({chunk.bytes, kept - chunk.offset, uint64_t{kSectorBytes}});
        for (; filling < chunk.offset / ClusterBitmap::kPageBytes; ++filling)
          m_allocation_bitmap.Share(filling, sharing);
        m_allocation_bitmap.Write(chunk.offset, std::span(sector).first(bytes));
        return Next::kGoOn;
      },
      // Past the kept bytes a lap marks the same clusters again.
      [&](uint64_t offset, uint64_t) { return offset >= kept ? Lap::kSettled : Lap::kGoOn; },
      // From the second time round on, every lap copies what the one before
      // copied (the buffer, which an unreadable sector keeps, included):
      // laps of whole pages are taken from the last one instead of read.
      [&, repeats = uint64_t{0}](uint64_t offset, uint64_t lap_bytes, uint64_t left) mutable -> uint64_t {
        constexpr uint64_t kPage = ClusterBitmap::kPageBytes;
        if (++repeats < 2 || offset >= kept || offset % kPage != 0 || lap_bytes % kPage != 0) return 0;
        const uint64_t laps = (std::min(kept - offset, left) / lap_bytes);
        if (laps < 2) return 0;
        for (; filling < offset / kPage; ++filling) m_allocation_bitmap.Share(filling, sharing);
        m_allocation_bitmap.RepeatPages(filling, lap_bytes / kPage, (laps - 1) * (lap_bytes / kPage));
        filling += (laps - 1) * (lap_bytes / kPage);
        return laps - 1;
      });
  if (kept != 0) m_allocation_bitmap.Share(std::min(filling, (kept - 1) / ClusterBitmap::kPageBytes), sharing);
  return walked;
}

bool Fat::UpdateAllocationBitmap() {
  const uint64_t start = m_boot_sector.BitmapStartCluster();
  const uint64_t length = m_boot_sector.BitmapLength();
  LogMessage("UpdateAllocationBitmap at cluster %ld (%ld bytes)\n", static_cast<long>(start),
             static_cast<long>(length));
  const uint64_t bytes_per_sector = m_boot_sector.BytesPerSector();
  // The check bitmap reads as zero past its end.
  std::vector<uint8_t> sector(kSectorBytes);
  // Round a loop, once a whole lap has written only the zeros past the
  // check bitmap, every later write puts zeros over them.
  const uint64_t zeros_lap_ends = m_check_bitmap.Size();
  const bool written = WalkSectors(
      start, length, [](uint64_t) {},
      [&](const SectorChunk& chunk) {
        // A sector that cannot be read leaves the buffer as it was, and is
        // written back so.
        const bool read = m_device.ReadSectors(1, chunk.sector, sector, chunk.rest);
        // Past the device sector the check bytes have nowhere to go.
        for (uint64_t i = 0; i < std::min(chunk.bytes, uint64_t{kSectorBytes}); ++i)
          sector[i] = m_check_bitmap.Byte(chunk.offset + i);
        // Zero sectors past the end of an image, all the cluster's others
        // after them zeros too, would only grow it with zeros: its last one
        // grows it as far.
        const uint64_t ahead =
            chunk.rest + 1 > UINT64_MAX / bytes_per_sector ? UINT64_MAX : (chunk.rest + 1) * bytes_per_sector;
        const bool zeros_past_end = !read && chunk.bytes >= kSectorBytes &&
                                    chunk.sector >= static_cast<uint64_t>(m_device.SectorCount()) &&
                                    chunk.sector + chunk.rest >= chunk.sector &&
                                    m_check_bitmap.IsZero(chunk.offset, ahead);
        m_device.WriteSectors(1, zeros_past_end ? chunk.sector + chunk.rest : chunk.sector, sector);
        return zeros_past_end ? Next::kSkipCluster : Next::kGoOn;
      },
      [&](uint64_t offset, uint64_t lap_bytes) {
        return offset >= zeros_lap_ends + lap_bytes ? Lap::kSettled : Lap::kGoOn;
      },
      // Each lap writes the same sectors again, the laps that come after
      // overwriting it: only the last two before the walk ends or settles
      // can be seen (the last may read what the one before wrote).
      [&](uint64_t offset, uint64_t lap_bytes, uint64_t left) -> uint64_t {
        const uint64_t settles = std::max(offset, zeros_lap_ends + lap_bytes);
        const uint64_t ends = std::min(settles - offset, left) / lap_bytes;
        return ends > 2 ? ends - 2 : 0;
      });
  if (!written) return false;
  m_allocation_bitmap.CopyFrom(m_check_bitmap, length);
  return true;
}
