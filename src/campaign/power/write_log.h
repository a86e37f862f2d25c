#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A log of every write, flush, FUA, discard and mark a device was sent, as
// Linux's dm-log-writes target and QEMU's blklogwrites driver record it:
// the material the power-cut rows replay onto a copy of the base image.

// What an entry was sent with. A flush entry may carry data too (a write
// sent with a preflush); a discard never does, though it counts sectors.
enum LogFlag : uint64_t {
  kLogFlush = 1,
  kLogFua = 2,
  kLogDiscard = 4,
  kLogMark = 8,
  kLogMetadata = 16,
};

// One entry of a log, its device range in bytes: the log counts in its own
// sector size, which a reader of the entry need not know.
struct LogEntry {
  uint64_t number = 0;   // 0-based, as errors name it
  uint64_t offset = 0;   // first byte of the device written or discarded
  uint64_t bytes = 0;    // how many; 0 for a bare flush and for a mark
  uint64_t flags = 0;    // LogFlag bits
  std::string mark;      // a mark's label
  uint64_t data_at = 0;  // byte offset in the log of the bytes a write wrote

  bool IsMark() const { return (flags & kLogMark) != 0; }
  bool IsDiscard() const { return (flags & kLogDiscard) != 0; }
  // Changes the device: replaying it is not the same as skipping it.
  bool ChangesDevice() const { return !IsMark() && bytes > 0; }
  // Ends an epoch: what came before it in the log is on the medium.
  bool IsDurable() const { return (flags & (kLogFlush | kLogFua | kLogMark)) != 0; }
};

struct WriteLog {
  uint32_t sector_size = 0;  // the logged device's sector: the log's unit
  std::vector<LogEntry> entries;
};

// Reads the log of `log_bytes` bytes behind `log_fd`, taken from a device of
// `device_bytes` bytes. Throws std::runtime_error "super block: <reason>"
// or "entry N: <reason>" for what is not such a log or is corrupt (a field
// that places anything past the log or the device, a flag it does not
// know, a mark label longer than its sector holds), and ErrnoException when
// reading fails. Reads only within the log; memory grows with the entries
// actually read, never with a count the super block claims.
WriteLog ReadWriteLog(int log_fd, uint64_t log_bytes, uint64_t device_bytes);
