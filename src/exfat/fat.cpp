#include "exfat/fat.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/little_endian.h"
#include "platform/log_message.h"

namespace {

constexpr uint32_t kMediaDescriptorEntry = 0xFFFFFFF8;
constexpr uint32_t kFatEntry1 = 0xFFFFFFFF;
constexpr uint64_t kFatEntryBytes = 4;
// Chains mostly run forward through the FAT: the sectors after one that is
// read come with it.
constexpr uint64_t kFatSectorsAhead = 31;

}  // namespace

std::unique_ptr<Fat> CreateFat(DeviceHandle& device, BootSector& boot_sector) {
  return std::make_unique<Fat>(device, boot_sector);
}

Fat::Fat(DeviceHandle& device, BootSector& boot_sector)
    : m_device(device),
      m_boot_sector(boot_sector),
      m_max_cluster(boot_sector.ClusterCount() + 2),
      // Sectors smaller than one entry still hold one, so the cache index
      // stays inside the buffer whatever the shift says.
      m_fat_entries_per_sector(std::max<uint64_t>(1, boot_sector.BytesPerSector() / kFatEntryBytes)),
      m_cached_fat_sector(boot_sector.FatOffset()),
      m_fat_sector_cache(kSectorBytes) {
  m_device.ReadSectors(1, m_cached_fat_sector, m_fat_sector_cache);
  const uint32_t entry0 = static_cast<uint32_t>(ReadLe32(&m_fat_sector_cache[0]));
  if (entry0 != kMediaDescriptorEntry) throw std::runtime_error(fmt::format("Invalid FAT entry 0: {:x}\n", entry0));
  const uint32_t entry1 = static_cast<uint32_t>(ReadLe32(&m_fat_sector_cache[kFatEntryBytes]));
  if (entry1 != kFatEntry1) throw std::runtime_error(fmt::format("Invalid FAT entry 1: {:x}\n", entry1));

  m_bitmap_bytes = (boot_sector.ClusterCount() + 7) / 8;
  // The model's top cluster, ClusterCount + 2, is bit ClusterCount: one past
  // a bitmap of exactly ClusterCount bits. Bytes past the on-disk bitmap's
  // length read as zero wherever a bitmap is copied or written out.
  m_check_bitmap = ClusterBitmap(boot_sector.ClusterCount() / 8 + 1);
  SetClusterBit(m_check_bitmap, boot_sector.RootDirectoryStart(), true);
}

void Fat::PrintInvalidCluster(uint64_t cluster) const {
  LogMessage("Invalid cluster: %lx (%lx total)\n", static_cast<unsigned long>(cluster),
             static_cast<unsigned long>(m_max_cluster));
}

uint64_t Fat::FatSectorOf(uint64_t cluster) const {
  // The shift is the boot sector's own, not masked as BytesPerSector's is:
  // from 34 on, every cluster below 2^32 has its entry in the FAT's first
  // sector. Below 2 it wraps round, and nothing is left of the cluster.
  const uint32_t shift = m_boot_sector.BytesPerSectorShift() - 2;
  return m_boot_sector.FatOffset() + (shift < 64 ? cluster >> shift : 0);
}

uint8_t* Fat::CachedFatEntry(uint64_t cluster) {
  const uint64_t sector = FatSectorOf(cluster);
  if (sector != m_cached_fat_sector) {
    // A sector that cannot be read leaves the cache as it was.
    m_device.ReadSectors(1, sector, m_fat_sector_cache, kFatSectorsAhead);
    m_cached_fat_sector = sector;
  }
  const uint64_t index = cluster % m_fat_entries_per_sector;
  if (index < kSectorBytes / kFatEntryBytes) return &m_fat_sector_cache[index * kFatEntryBytes];
  return m_fat_entries_past_cache.try_emplace(index, std::array<uint8_t, 4>{}).first->second.data();
}

uint32_t Fat::ReadFatEntry(uint64_t cluster) { return static_cast<uint32_t>(ReadLe32(CachedFatEntry(cluster))); }

bool Fat::WriteFatEntry(uint64_t cluster, uint32_t value) {
  if (!InRange(cluster)) {
    PrintInvalidCluster(cluster);
    return false;
  }
  WriteLe32(CachedFatEntry(cluster), value);
  m_device.WriteSectors(1, m_cached_fat_sector, m_fat_sector_cache);
  return true;
}

uint64_t Fat::NextCluster(uint64_t cluster, bool no_fat_chain, uint64_t remaining) {
  if (!InRange(cluster)) {
    PrintInvalidCluster(cluster);
    return 0;
  }
  if (!no_fat_chain) return ReadFatEntry(cluster);
  if (remaining == 0) return kEndOfChain;
  const uint64_t next = cluster + 1;
  if (!InRange(next)) {
    PrintInvalidCluster(next);
    LogMessage("Invalid cluster in contiguous allocation: %lx\n", static_cast<unsigned long>(next));
  }
  return next;
}

void Fat::Prefetch(uint64_t cluster, bool no_fat_chain, uint64_t bytes) {
  const uint64_t kMostBytes = uint64_t{4} << 20;
  const uint64_t kSomeBytes = uint64_t{256} << 10;
  const uint64_t sectors_per_cluster = m_boot_sector.SectorsPerCluster();
  uint64_t left = (bytes == 0 ? kSomeBytes : std::min(bytes, kMostBytes)) / kSectorBytes + 1;
  std::vector<uint8_t> sector(kSectorBytes);
  while (left > 0 && InRange(cluster)) {
    const uint64_t count = std::min(left, sectors_per_cluster);
    m_device.Prefetch(m_boot_sector.ClusterToSector(cluster), count);
    left -= count;
    if (no_fat_chain) {
      ++cluster;
      continue;
    }
    const uint64_t index = cluster % m_fat_entries_per_sector;
    if (index >= kSectorBytes / kFatEntryBytes) return;
    if (!m_device.ReadSectors(1, FatSectorOf(cluster), sector, kFatSectorsAhead)) return;
    cluster = ReadLe32(&sector[index * kFatEntryBytes]);
  }
}

bool Fat::IsClusterAllocated(uint64_t cluster) const {
  if (!InRange(cluster)) {
    PrintInvalidCluster(cluster);
    return false;
  }
  return m_allocation_bitmap.Test(cluster);
}

void Fat::SetClusterBit(ClusterBitmap& bitmap, uint64_t cluster, bool value) {
  if (!InRange(cluster)) {
    PrintInvalidCluster(cluster);
    throw std::runtime_error(fmt::format("Invalid cluster {:x}", cluster));
  }
  m_changes += bitmap.Set(cluster, value);
}

uint64_t Fat::Changes() const { return m_changes + m_device.Writes(); }

std::string Fat::FatCacheKey() const {
  std::string key(reinterpret_cast<const char*>(m_fat_sector_cache.data()), m_fat_sector_cache.size());
  for (int shift = 0; shift < 64; shift += 8) key.push_back(static_cast<char>(m_cached_fat_sector >> shift));
  return key;
}

void Fat::CopyBitmapToCheck() { m_check_bitmap.CopyFrom(m_allocation_bitmap, m_bitmap_bytes); }
