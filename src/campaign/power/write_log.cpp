#include "campaign/power/write_log.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include <fmt/format.h>

#include "exfat/little_endian.h"
#include "platform/errno_exception.h"

namespace {

constexpr uint64_t kMagic = 0x6a736677736872;
constexpr uint64_t kVersion = 1;
// magic, version, nr_entries (64 bits each), sectorsize (32 bits).
constexpr uint64_t kSuperBytes = 28;
// sector, nr_sectors, flags, data_len: 64 bits each, a mark's label after.
constexpr uint64_t kEntryHeaderBytes = 32;
constexpr uint64_t kKnownFlags = kLogFlush | kLogFua | kLogDiscard | kLogMark | kLogMetadata;
// The log's sector is the logged device's logical block: 512 bytes at
// least, and the kernel writes each log sector from a single page, so at
// most the largest page an aarch64 kernel runs with.
constexpr uint32_t kSmallestSector = 512;
constexpr uint32_t kLargestSector = 65536;

void ReadAt(int fd, uint8_t* into, size_t bytes, uint64_t at) {
  for (size_t done = 0; done < bytes;) {
    const ssize_t got = pread(fd, into + done, bytes - done, static_cast<off_t>(at + done));
    if (got < 0 && errno == EINTR) continue;
    // The log's size came from the caller: a file shorter than it is
    // an error of reading, not of the log's fields.
    if (got <= 0) throw ErrnoException(got < 0 ? errno : EIO, fmt::format("reading the log at byte {}", at + done));
    done += static_cast<size_t>(got);
  }
}

// Products and sums of on-disk fields: any of them may be chosen to wrap.
bool Multiply(uint64_t a, uint64_t b, uint64_t& product) { return !__builtin_mul_overflow(a, b, &product); }
bool Add(uint64_t a, uint64_t b, uint64_t& sum) { return !__builtin_add_overflow(a, b, &sum); }

struct Super {
  uint64_t entries;
  uint32_t sector_size;
};

Super ReadSuper(int fd, uint64_t log_bytes) {
  if (log_bytes < kSuperBytes)
    throw std::runtime_error(
        fmt::format("super block: the log holds {} bytes, fewer than the super block's {}", log_bytes, kSuperBytes));
  uint8_t super[kSuperBytes];
  ReadAt(fd, super, sizeof super, 0);
  const uint64_t magic = ReadLe64(super);
  if (magic != kMagic) throw std::runtime_error(fmt::format("super block: magic {:#x} is not a write log's", magic));
  const uint64_t version = ReadLe64(super + 8);
  if (version != kVersion)
    throw std::runtime_error(fmt::format("super block: version {}, where only {} is known", version, kVersion));
  const uint64_t sector_size = ReadLe32(super + 24);
  if (sector_size < kSmallestSector || sector_size > kLargestSector || (sector_size & (sector_size - 1)) != 0)
    throw std::runtime_error(fmt::format("super block: sector size {} is not a power of two from {} to {}", sector_size,
                                         kSmallestSector, kLargestSector));
  if (log_bytes < sector_size)
    throw std::runtime_error(
        fmt::format("super block: the log holds {} bytes, less than its sector of {}", log_bytes, sector_size));
  const uint64_t entries = ReadLe64(super + 16);
  // Each entry takes a sector of its own after the super block's.
  const uint64_t sectors = log_bytes / sector_size;
  if (entries > sectors - 1)
    throw std::runtime_error(fmt::format("super block: {} entries, more than a log of {} sectors of {} bytes holds",
                                         entries, sectors, sector_size));
  return {entries, static_cast<uint32_t>(sector_size)};
}

// The entry whose header sector is `header`, found at byte `at`; `at` moves
// on to the next entry's sector.
LogEntry ParseEntry(uint64_t number, const std::vector<uint8_t>& header, uint64_t& at, uint64_t log_bytes,
                    uint64_t device_bytes) {
  const uint64_t sector_size = header.size();
  LogEntry entry;
  entry.number = number;
  const uint64_t sector = ReadLe64(header.data());
  const uint64_t sectors = ReadLe64(header.data() + 8);
  entry.flags = ReadLe64(header.data() + 16);
  const uint64_t data_len = ReadLe64(header.data() + 24);
  if ((entry.flags & ~kKnownFlags) != 0)
    throw std::runtime_error(fmt::format("entry {}: unknown flags {:#x}", number, entry.flags & ~kKnownFlags));

  uint64_t end = 0;
  if (!Multiply(sector, sector_size, entry.offset) || !Multiply(sectors, sector_size, entry.bytes) ||
      !Add(entry.offset, entry.bytes, end) || end > device_bytes)
    throw std::runtime_error(
        fmt::format("entry {}: {} sectors of {} bytes at sector {} pass the device's end at byte {}", number, sectors,
                    sector_size, sector, device_bytes));

  const uint64_t after_header = at + sector_size;
  if (entry.IsMark()) {
    // The kernel cuts a label to leave its terminating zero in the sector.
    const uint64_t room = sector_size - kEntryHeaderBytes - 1;
    if (data_len > room)
      throw std::runtime_error(
          fmt::format("entry {}: a mark label of {} bytes, more than its sector holds ({})", number, data_len, room));
    if (sectors != 0)
      throw std::runtime_error(fmt::format("entry {}: a mark that counts sectors ({})", number, sectors));
    entry.mark.assign(reinterpret_cast<const char*>(header.data() + kEntryHeaderBytes), data_len);
    at = after_header;
    return entry;
  }
  // Outside marks, data_len told of data some kernels inlined; the
  // sectors that follow hold it all the same, so it is not needed.
  if (entry.IsDiscard() || entry.bytes == 0) {
    at = after_header;
    return entry;
  }
  entry.data_at = after_header;
  uint64_t data_end = 0;
  if (!Add(after_header, entry.bytes, data_end) || data_end > log_bytes)
    throw std::runtime_error(fmt::format("entry {}: its {} bytes of data at byte {} run past the log's end at byte {}",
                                         number, entry.bytes, after_header, log_bytes));
  at = data_end;
  return entry;
}

}  // namespace

WriteLog ReadWriteLog(int log_fd, uint64_t log_bytes, uint64_t device_bytes) {
  const Super super = ReadSuper(log_fd, log_bytes);
  WriteLog log;
  log.sector_size = super.sector_size;
  std::vector<uint8_t> header(super.sector_size);
  uint64_t at = super.sector_size;
  for (uint64_t number = 0; number < super.entries; ++number) {
    if (at > log_bytes || log_bytes - at < super.sector_size)
      throw std::runtime_error(
          fmt::format("entry {}: its sector at byte {} runs past the log's end at byte {}", number, at, log_bytes));
    ReadAt(log_fd, header.data(), header.size(), at);
    log.entries.push_back(ParseEntry(number, header, at, log_bytes, device_bytes));
  }
  return log;
}
