#include "exfat/device_handle.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/errno_exception.h"
#include "platform/log_message.h"

DeviceHandle::~DeviceHandle() {
  if (m_fd.IsOpen()) fsync(m_fd.Get());
  m_fd.Reset();
}

bool DeviceHandle::Open(const std::string& path, uint32_t sector_size, bool read_only) {
  m_sector_size = sector_size;
  const int flags = (read_only ? O_RDONLY : O_RDWR) | O_EXCL | O_CLOEXEC;
  UniqueFd fd(open64(path.c_str(), flags));
  if (!fd.IsOpen()) throw ErrnoException(errno, path);
  const off64_t end = lseek64(fd.Get(), 0, SEEK_END);
  m_sector_count = (sector_size == 0 || end < 0) ? 0 : end / sector_size;
  m_fd = std::move(fd);
  return true;
}

int64_t DeviceHandle::ByteOffset(uint64_t start_sector) const {
  if (m_sector_size == 0 || start_sector > static_cast<uint64_t>(INT64_MAX) / m_sector_size) return -1;
  return static_cast<int64_t>(start_sector * m_sector_size);
}

std::optional<uint64_t> DeviceHandle::ByteCount(uint64_t count) const {
  if (m_sector_size != 0 && count > SSIZE_MAX / m_sector_size) return std::nullopt;
  return count * m_sector_size;
}

void DeviceHandle::Prefetch(uint64_t start_sector, uint64_t count) {
  const int64_t offset = ByteOffset(start_sector);
  const std::optional<uint64_t> bytes = ByteCount(count);
  if (offset >= 0 && bytes && *bytes <= static_cast<uint64_t>(INT64_MAX - offset))
    posix_fadvise64(m_fd.Get(), offset, static_cast<off64_t>(*bytes), POSIX_FADV_WILLNEED);
}

bool DeviceHandle::ReadThroughWindow(uint64_t sector, uint64_t ahead, std::span<uint8_t> buffer) {
  ++m_reads;
  Window* found = nullptr;
  for (Window& w : m_windows)
    if (w.bytes && sector >= w.first && sector - w.first < w.sectors) found = &w;
  if (found == nullptr) {
    const uint64_t sectors = 1 + std::min(ahead, kWindowSectors - 1);
    const int64_t offset = ByteOffset(sector);
    if (offset < 0 || sector + sectors < sector || ByteOffset(sector + sectors) < 0) return false;
    Window* oldest = &m_windows[0];
    for (Window& w : m_windows)
      if (w.last_used < oldest->last_used) oldest = &w;
    if (!oldest->bytes) oldest->bytes = std::make_unique_for_overwrite<uint8_t[]>(kWindowSectors * m_sector_size);
    const ssize_t done = pread64(m_fd.Get(), oldest->bytes.get(), sectors * m_sector_size, offset);
    oldest->first = sector;
    oldest->sectors = done > 0 ? static_cast<uint64_t>(done) / m_sector_size : 0;
    if (oldest->sectors == 0) return false;
    found = oldest;
  }
  found->last_used = m_reads;
  std::memcpy(buffer.data(), found->bytes.get() + (sector - found->first) * m_sector_size, m_sector_size);
  return true;
}

bool DeviceHandle::ReadSectors(uint64_t count, uint64_t start_sector, std::span<uint8_t> buffer, uint64_t ahead) {
  if (count == 1 && ReadThroughWindow(start_sector, ahead, buffer)) return true;
  const std::optional<uint64_t> bytes = ByteCount(count);
  const int64_t offset = ByteOffset(start_sector);
  if (!bytes || offset < 0) return false;
  assert(*bytes <= buffer.size());
  const ssize_t done = pread64(m_fd.Get(), buffer.data(), *bytes, offset);
  return done >= 0 && static_cast<uint64_t>(done) == *bytes;
}

bool DeviceHandle::WriteSectors(uint64_t count, uint64_t start_sector, std::span<const uint8_t> buffer) {
  const std::optional<uint64_t> bytes = ByteCount(count);
  const int64_t offset = ByteOffset(start_sector);
  if (bytes && offset >= 0) {
    assert(*bytes <= buffer.size());
    const ssize_t done = pwrite64(m_fd.Get(), buffer.data(), *bytes, offset);
    const bool written = done >= 0 && static_cast<uint64_t>(done) == *bytes;
    // The windows keep what the device now holds: the sectors written, or
    // none of theirs where a write may have been cut short.
    for (Window& w : m_windows) {
      const uint64_t from = std::max(w.first, start_sector);
      const uint64_t to = std::min(w.first + w.sectors, start_sector + count);
      if (from >= to) continue;
      if (!written) {
        w.sectors = 0;
        continue;
      }
      std::memcpy(w.bytes.get() + (from - w.first) * m_sector_size,
                  buffer.data() + (from - start_sector) * m_sector_size, (to - from) * m_sector_size);
    }
    if (written) {
      ++m_writes;
      // A write past the end of an image file grows it.
      m_sector_count = std::max(m_sector_count, static_cast<int64_t>(start_sector + count));
      return true;
    }
  }
  LogMessage("Failed to write %ld from %lld\n", static_cast<long>(count),
             static_cast<long long>(start_sector));
  return false;
}
