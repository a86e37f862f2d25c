#pragma once

// For the tests alone: logs laid out as the kernel's dm-log-writes target
// lays them out, for what QEMU cannot send (marks) and for damage done on
// purpose to a log's fields.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

class LogBuilder {
 public:
  explicit LogBuilder(uint32_t sector_size) : m_sector_size(sector_size), m_bytes(sector_size) {
    Put64(0, 0x6a736677736872);
    Put64(8, 1);
    Put32(24, sector_size);
  }

  // A write of `data` (whole sectors) at log sector `sector`.
  LogBuilder& Write(uint64_t sector, const std::vector<uint8_t>& data, uint64_t flags = 0) {
    Entry(sector, data.size() / m_sector_size, flags, 0);
    m_bytes.insert(m_bytes.end(), data.begin(), data.end());
    return *this;
  }
  // A discard counts its sectors and carries no data.
  LogBuilder& Discard(uint64_t sector, uint64_t sectors) {
    Entry(sector, sectors, 4, 0);
    return *this;
  }
  LogBuilder& Flush() {
    Entry(0, 0, 1, 0);
    return *this;
  }
  // The label goes in the entry's own sector, after its 32 bytes.
  LogBuilder& Mark(const std::string& label) {
    const size_t at = Entry(0, 0, 8, label.size());
    std::copy(label.begin(), label.end(), m_bytes.begin() + static_cast<ptrdiff_t>(at + 32));
    return *this;
  }

  // Where entry `number`'s sector begins in the log.
  uint64_t EntryAt(size_t number) const { return m_entry_at.at(number); }
  size_t Entries() const { return m_entry_at.size(); }
  // The log with its super block counting every entry.
  std::vector<uint8_t> Bytes() {
    Put64(16, m_entry_at.size());
    return m_bytes;
  }

  // Little-endian stores into the log, for damage done on purpose.
  void Put64(uint64_t at, uint64_t value) {
    for (int i = 0; i < 8; ++i) m_bytes.at(at + i) = static_cast<uint8_t>(value >> (8 * i));
  }
  void Put32(uint64_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) m_bytes.at(at + i) = static_cast<uint8_t>(value >> (8 * i));
  }

 private:
  size_t Entry(uint64_t sector, uint64_t sectors, uint64_t flags, uint64_t data_len) {
    const size_t at = m_bytes.size();
    m_entry_at.push_back(at);
    m_bytes.resize(at + m_sector_size);
    Put64(at, sector);
    Put64(at + 8, sectors);
    Put64(at + 16, flags);
    Put64(at + 24, data_len);
    return at;
  }

  uint32_t m_sector_size;
  std::vector<uint8_t> m_bytes;
  std::vector<size_t> m_entry_at;
};

// A file in memory holding `bytes`, as a log or a target is handed over.
inline UniqueFd MemoryFile(const std::vector<uint8_t>& bytes) {
  UniqueFd fd(memfd_create("write-log", MFD_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, "memfd_create");
  if (!bytes.empty() && write(fd.Get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    throw ErrnoException(errno, "writing a memory file");
  return fd;
}

// Bytes that differ from sector to sector and within one, so that a copy
// from the wrong place shows.
inline std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 512);
  return bytes;
}

// The whole content of `fd`.
inline std::vector<uint8_t> ReadFile(int fd) {
  std::vector<uint8_t> bytes;
  uint8_t block[65536];
  for (off_t at = 0;;) {
    const ssize_t got = pread(fd, block, sizeof block, at);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw ErrnoException(errno, "reading back");
    if (got == 0) return bytes;
    bytes.insert(bytes.end(), block, block + got);
    at += got;
  }
}
