#pragma once

#include <cstdint>
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
  // them) in one call. False, silently, unless every byte came back.
  bool ReadSectors(uint64_t count, uint64_t start_sector, std::span<uint8_t> buffer);
  // Writes `count` sectors in one call. A short or failed write prints
  // "Failed to write ..." and returns false.
  bool WriteSectors(uint64_t count, uint64_t start_sector, std::span<const uint8_t> buffer);

 private:
  // Byte offset of `start_sector`, or -1 when it cannot be addressed.
  int64_t ByteOffset(uint64_t start_sector) const;
  // Bytes in `count` sectors, or nothing when that does not fit one transfer.
  std::optional<uint64_t> ByteCount(uint64_t count) const;

  UniqueFd m_fd;
  uint32_t m_sector_size = 0;
  int64_t m_sector_count = 0;
  uint64_t m_writes = 0;
};
