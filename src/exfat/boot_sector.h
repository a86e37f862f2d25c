#pragma once

#include <cstdint>
#include <memory>
#include <span>

// The validated main boot sector: the volume's geometry. The allocation
// bitmap's location is not in the boot sector; the directory scan records it
// here when it meets the bitmap's directory entry.
class BootSector {
 public:
  static constexpr size_t kSize = 512;

  // Fills the fields from the 512 raw bytes. Only ParseBootSector
  // constructs one, after validation.
  explicit BootSector(std::span<const uint8_t, kSize> raw);
  virtual ~BootSector() = default;

  // "BootSector info (in hex):" and the geometry, a field a line.
  void PrintGeometry() const;

  // First sector of `cluster` (unsigned arithmetic: clusters below 2 wrap,
  // so callers check the cluster first).
  uint64_t ClusterToSector(uint64_t cluster) const {
    return m_cluster_heap_offset + (cluster - 2) * m_sectors_per_cluster;
  }

  uint64_t VolumeLength() const { return m_volume_length; }
  uint64_t FatOffset() const { return m_fat_offset; }
  uint64_t FatLength() const { return m_fat_length; }
  uint64_t ClusterHeapOffset() const { return m_cluster_heap_offset; }
  uint64_t ClusterCount() const { return m_cluster_count; }
  uint64_t RootDirectoryStart() const { return m_root_directory_start; }
  uint64_t VolumeSerialNumber() const { return m_volume_serial_number; }
  uint32_t BytesPerSector() const { return m_bytes_per_sector; }
  uint32_t SectorsPerCluster() const { return m_sectors_per_cluster; }
  uint32_t BytesPerSectorShift() const { return m_bytes_per_sector_shift; }
  uint32_t SectorsPerClusterShift() const { return m_sectors_per_cluster_shift; }
  uint16_t NumberOfFats() const { return m_number_of_fats; }
  bool ActiveFat() const { return m_active_fat; }
  bool VolumeDirty() const { return m_volume_dirty; }
  bool MediaFailure() const { return m_media_failure; }

  uint64_t BitmapStartCluster() const { return m_bitmap_start_cluster; }
  uint64_t BitmapLength() const { return m_bitmap_length; }
  void SetBitmapStartCluster(uint64_t cluster) { m_bitmap_start_cluster = cluster; }
  void SetBitmapLength(uint64_t bytes) { m_bitmap_length = bytes; }

 private:
  uint64_t m_volume_length;
  uint64_t m_fat_offset;
  uint64_t m_fat_length;
  uint64_t m_cluster_heap_offset;
  uint64_t m_cluster_count;
  uint64_t m_root_directory_start;
  uint64_t m_volume_serial_number;
  uint32_t m_bytes_per_sector;
  uint32_t m_sectors_per_cluster;
  uint32_t m_bytes_per_sector_shift;
  uint32_t m_sectors_per_cluster_shift;
  uint16_t m_number_of_fats;
  uint64_t m_bitmap_start_cluster = 0;
  uint64_t m_bitmap_length = 0;
  bool m_active_fat;
  bool m_volume_dirty;
  bool m_media_failure;
};

// Validates the first 512 bytes of the main boot region (signature, jump
// bytes, file-system name, zero area, in that order). The first failing
// check prints its message and yields null.
std::unique_ptr<BootSector> ParseBootSector(std::span<const uint8_t, BootSector::kSize> raw);
