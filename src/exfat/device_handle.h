#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/unique_fd.h"

// The raw block device (or image file) under an unmounted exFAT volume,
// opened exclusively and addressed in fixed-size sectors. Device mode always
// uses 512-byte sectors, whatever the boot sector says.
class DeviceHandle {
 public:
  static constexpr uint32_t kDeviceModeSectorSize = 512;

  DeviceHandle() = default;
  // Flushes (fsync) and closes; errors of either are ignored. This is the
  // only flush of device mode.
  ~DeviceHandle();
  DeviceHandle(const DeviceHandle&) = delete;
  DeviceHandle& operator=(const DeviceHandle&) = delete;

  // Opens with O_EXCL, so a mounted block device is refused with EBUSY.
  // Throws ErrnoException(errno, path) on failure; returns true otherwise.
  bool Open(const std::string& path, uint32_t sector_size, bool read_only);

  // The device's size in sectors; an image file grows with writes past its end.
  int64_t SectorCount() const { return m_sector_count; }
  // How many writes have reached the device.
  uint64_t Writes() const { return m_writes; }
  uint32_t SectorSize() const { return m_sector_size; }

  // Reads `count` sectors from `start_sector` into `buffer` (which must hold
  // them). False, silently, unless every byte came back; then the buffer
  // holds what a single read of them left there. `ahead`: how many of the
  // sectors after a single one the caller is about to read, which are then
  // read with it.
  bool ReadSectors(uint64_t count, uint64_t start_sector, std::span<uint8_t> buffer, uint64_t ahead = 0);
  // Tells the system that `count` sectors from `start_sector` are about to
  // be read, so that their reads are under way together. Changes nothing.
  void Prefetch(uint64_t start_sector, uint64_t count);
  // Writes `count` sectors in one call. A short or failed write prints
  // "Failed to write ..." and returns false.
  bool WriteSectors(uint64_t count, uint64_t start_sector, std::span<const uint8_t> buffer);

 private:
  // Byte offset of `start_sector`, or -1 when it cannot be addressed.
  int64_t ByteOffset(uint64_t start_sector) const;
  // Bytes in `count` sectors, or nothing when that does not fit one transfer.
  std::optional<uint64_t> ByteCount(uint64_t count) const;

  // A single sector is read through a window: it and the sectors the
  // caller reads next, read in one call and kept for the reads that follow
  // (a directory's cluster, a stretch of the FAT, the bitmap). A few
  // windows are kept, so that a walk through the FAT does not push out the
  // directory it serves. Only sectors read whole are kept; any other is
  // read on its own, as it always was. Writes keep the windows up to date.
  static constexpr uint64_t kWindowSectors = 128;
  static constexpr size_t kWindows = 4;
  struct Window {
    std::unique_ptr<uint8_t[]> bytes;
    uint64_t first = 0;
    uint64_t sectors = 0;  // read whole, from `first` on
    uint64_t last_used = 0;
  };
  bool ReadThroughWindow(uint64_t sector, uint64_t ahead, std::span<uint8_t> buffer);

  UniqueFd m_fd;
  std::array<Window, kWindows> m_windows;
  uint64_t m_reads = 0;
  uint32_t m_sector_size = 0;
  int64_t m_sector_count = 0;
  uint64_t m_writes = 0;
};
