#include "campaign/power/replay.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

#include "platform/errno_exception.h"

namespace {

// Writes are copied through a buffer of this size, whatever an entry's
// length: a log may hold a single write of the whole device.
constexpr size_t kChunk = 1 << 20;

void WriteAll(int fd, const uint8_t* bytes, size_t size, uint64_t at, uint64_t entry) {
  for (size_t done = 0; done < size;) {
    const ssize_t put = pwrite(fd, bytes + done, size - done, static_cast<off_t>(at + done));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0)
      throw ErrnoException(put < 0 ? errno : EIO,
                           fmt::format("entry {}: writing the target at byte {}", entry, at + done));
    done += static_cast<size_t>(put);
  }
}

void ReadAll(int fd, uint8_t* into, size_t size, uint64_t at, uint64_t entry) {
  for (size_t done = 0; done < size;) {
    const ssize_t got = pread(fd, into + done, size - done, static_cast<off_t>(at + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0)
      throw ErrnoException(got < 0 ? errno : EIO,
                           fmt::format("entry {}: reading the log at byte {}", entry, at + done));
    done += static_cast<size_t>(got);
  }
}

}  // namespace

void Replay(const WriteLog& log, int log_fd, int target_fd, size_t from, size_t to) {
  if (from > to || to > log.entries.size())
    throw std::invalid_argument(fmt::format("replaying entries {} to {} of a log of {}", from, to, log.entries.size()));
  std::vector<uint8_t> chunk;
  for (size_t i = from; i < to; ++i) {
    const LogEntry& entry = log.entries[i];
    if (!entry.ChangesDevice()) continue;
    const size_t size = static_cast<size_t>(std::min<uint64_t>(kChunk, entry.bytes));
    if (chunk.size() < size) chunk.resize(size);
    // A discarded range reads back as zeros from a loop device over a
    // file (the hole punched) and from most cards; keeping the old bytes
    // would hide a driver that reads what it discarded.
    if (entry.IsDiscard()) std::fill(chunk.begin(), chunk.begin() + static_cast<ptrdiff_t>(size), 0);
    for (uint64_t done = 0; done < entry.bytes;) {
      const size_t piece = static_cast<size_t>(std::min<uint64_t>(size, entry.bytes - done));
      if (!entry.IsDiscard()) ReadAll(log_fd, chunk.data(), piece, entry.data_at + done, entry.number);
      WriteAll(target_fd, chunk.data(), piece, entry.offset + done, entry.number);
      done += piece;
    }
  }
}
