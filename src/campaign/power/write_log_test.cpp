#include "campaign/power/write_log.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "campaign/power/log_builder.h"

namespace {

constexpr uint64_t kDevice = 1 << 20;

WriteLog Read(const std::vector<uint8_t>& bytes, uint64_t device_bytes = kDevice) {
  const UniqueFd fd = MemoryFile(bytes);
  return ReadWriteLog(fd.Get(), bytes.size(), device_bytes);
}

std::string Refusal(const std::vector<uint8_t>& bytes, uint64_t device_bytes = kDevice) {
  try {
    Read(bytes, device_bytes);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(read)";
}

// Every kind of entry, at both ends of the sector sizes in use: the log's
// sector counts the device's sectors and places each entry after the data
// of the one before, but a discard's sectors hold nothing in the log.
TEST(WriteLog, ReadsEachKindOfEntryWhereTheKernelPutsIt) {
  for (const uint32_t sector : {512u, 4096u}) {
    SCOPED_TRACE(sector);
    LogBuilder builder(sector);
    builder.Write(3, Pattern(2 * sector, 1))
        .Discard(5, 7)
        .Flush()
        .Mark("after-flush")
        .Write(0, Pattern(sector, 2), kLogFlush | kLogFua | kLogMetadata);
    const WriteLog log = Read(builder.Bytes());
    EXPECT_EQ(log.sector_size, sector);
    ASSERT_EQ(log.entries.size(), 5u);
    struct Expected {
      uint64_t offset, bytes, flags;
      std::string mark;
      uint64_t data_at;
    };
    const Expected expected[] = {
        {3ull * sector, 2ull * sector, 0, "", 2ull * sector},
        {5ull * sector, 7ull * sector, kLogDiscard, "", 0},
        {0, 0, kLogFlush, "", 0},
        {0, 0, kLogMark, "after-flush", 0},
        {0, sector, kLogFlush | kLogFua | kLogMetadata, "", 8ull * sector},
    };
    for (size_t i = 0; i < 5; ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(log.entries[i].number, i);
      EXPECT_EQ(log.entries[i].offset, expected[i].offset);
      EXPECT_EQ(log.entries[i].bytes, expected[i].bytes);
      EXPECT_EQ(log.entries[i].flags, expected[i].flags);
      EXPECT_EQ(log.entries[i].mark, expected[i].mark);
      EXPECT_EQ(log.entries[i].data_at, expected[i].data_at);
    }
    EXPECT_EQ(builder.EntryAt(4) + sector, log.entries[4].data_at);
  }
}

// What sits exactly at a limit is a log still: a write that ends at the
// device's last byte, data that ends at the log's, the longest label.
TEST(WriteLog, TakesWhatEndsExactlyAtALimit) {
  LogBuilder builder(512);
  builder.Mark(std::string(479, 'x')).Write(kDevice / 512 - 2, Pattern(1024, 3));
  const WriteLog log = Read(builder.Bytes());
  ASSERT_EQ(log.entries.size(), 2u);
  EXPECT_EQ(log.entries[0].mark, std::string(479, 'x'));
  EXPECT_EQ(log.entries[1].offset + log.entries[1].bytes, kDevice);
  EXPECT_EQ(log.entries[1].data_at + 1024, builder.Bytes().size());

  LogBuilder empty(4096);
  const WriteLog none = Read(empty.Bytes());
  EXPECT_EQ(none.sector_size, 4096u);
  EXPECT_TRUE(none.entries.empty());
}

// A log holds only the entries its super block counts: what follows
// (a log device reused, not wiped) is not read.
TEST(WriteLog, ReadsTheEntriesTheSuperBlockCounts) {
  LogBuilder builder(512);
  builder.Write(0, Pattern(512, 4)).Flush();
  std::vector<uint8_t> bytes = builder.Bytes();
  bytes[16] = 1;
  const WriteLog log = Read(bytes);
  ASSERT_EQ(log.entries.size(), 1u);
  EXPECT_EQ(log.entries[0].bytes, 512u);
}

struct Malformed {
  const char* what;
  std::function<void(LogBuilder&, std::vector<uint8_t>&)> damage;
  std::string message;
};

// Each field that can place something where it cannot be, and the exact
// words that say which entry and why.
TEST(WriteLog, RefusesWhatIsNotALogOrIsCorrupt) {
  // Entries 0..3: a write of two sectors at sector 3, a flush, a mark,
  // a discard of 8 sectors at sector 16; 512-byte sectors.
  const auto put = [](std::vector<uint8_t>& bytes, uint64_t at, uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes.at(at + i) = static_cast<uint8_t>(value >> (8 * i));
  };
  const std::vector<Malformed> cases = {
      {"no super block", [](LogBuilder&, std::vector<uint8_t>& b) { b.resize(27); },
       "super block: the log holds 27 bytes, fewer than the super block's 28"},
      {"bad magic", [&](LogBuilder&, std::vector<uint8_t>& b) { put(b, 0, 0x6a736677736873); },
       "super block: magic 0x6a736677736873 is not a write log's"},
      {"a version to come", [&](LogBuilder&, std::vector<uint8_t>& b) { put(b, 8, 2); },
       "super block: version 2, where only 1 is known"},
      {"sector of 256", [](LogBuilder&, std::vector<uint8_t>& b) { b[24] = 0; b[25] = 1; },
       "super block: sector size 256 is not a power of two from 512 to 65536"},
      {"sector of 1536", [](LogBuilder&, std::vector<uint8_t>& b) { b[25] = 6; },
       "super block: sector size 1536 is not a power of two from 512 to 65536"},
      {"sector of 128 KiB", [](LogBuilder&, std::vector<uint8_t>& b) { b[25] = 0; b[26] = 2; },
       "super block: sector size 131072 is not a power of two from 512 to 65536"},
      {"less than a sector", [](LogBuilder&, std::vector<uint8_t>& b) { b.resize(511); },
       "super block: the log holds 511 bytes, less than its sector of 512"},
      {"more entries than sectors", [&](LogBuilder&, std::vector<uint8_t>& b) { put(b, 16, 7); },
       "super block: 7 entries, more than a log of 7 sectors of 512 bytes holds"},
      {"an entry past the end", [&](LogBuilder&, std::vector<uint8_t>& b) { put(b, 16, 5); b.resize(3584); },
       "entry 4: its sector at byte 3584 runs past the log's end at byte 3584"},
      {"an entry cut short", [&](LogBuilder&, std::vector<uint8_t>& b) { put(b, 16, 5); b.resize(4000); },
       "entry 4: its sector at byte 3584 runs past the log's end at byte 4000"},
      {"data cut short", [&](LogBuilder&, std::vector<uint8_t>& b) { put(b, 16, 1); b.resize(1535); },
       "entry 0: its 1024 bytes of data at byte 1024 run past the log's end at byte 1535"},
      {"a write past the device", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(0), 2047); },
       "entry 0: 2 sectors of 512 bytes at sector 2047 pass the device's end at byte 1048576"},
      {"a discard past the device", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(3) + 8, 2033); },
       "entry 3: 2033 sectors of 512 bytes at sector 16 pass the device's end at byte 1048576"},
      {"a sector that wraps", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(0), 1ull << 55); },
       "entry 0: 2 sectors of 512 bytes at sector 36028797018963968 pass the device's end at byte 1048576"},
      {"a count that wraps", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(3) + 8, ~0ull); },
       "entry 3: 18446744073709551615 sectors of 512 bytes at sector 16 pass the device's end at byte 1048576"},
      {"an end that wraps",
       [&](LogBuilder& l, std::vector<uint8_t>& b) {
         put(b, l.EntryAt(3), 1ull << 54);
         put(b, l.EntryAt(3) + 8, 1ull << 54);
       },
       "entry 3: 18014398509481984 sectors of 512 bytes at sector 18014398509481984 pass the device's end at byte "
       "1048576"},
      {"a label too long", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(2) + 24, 480); },
       "entry 2: a mark label of 480 bytes, more than its sector holds (479)"},
      {"a label far too long", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(2) + 24, ~0ull); },
       "entry 2: a mark label of 18446744073709551615 bytes, more than its sector holds (479)"},
      {"a mark that writes", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(2) + 8, 1); },
       "entry 2: a mark that counts sectors (1)"},
      {"a flag to come", [&](LogBuilder& l, std::vector<uint8_t>& b) { put(b, l.EntryAt(1) + 16, 0x21); },
       "entry 1: unknown flags 0x20"},
  };
  for (const Malformed& c : cases) {
    SCOPED_TRACE(c.what);
    LogBuilder builder(512);
    builder.Write(3, Pattern(1024, 5)).Flush().Mark("m").Discard(16, 8);
    std::vector<uint8_t> bytes = builder.Bytes();
    c.damage(builder, bytes);
    EXPECT_EQ(Refusal(bytes), c.message);
  }
}

// A file shorter than the size it is said to have is a failure to read,
// not a log read in part.
TEST(WriteLog, TellsOfAFileShorterThanItsSize) {
  LogBuilder builder(512);
  builder.Write(0, Pattern(512, 6));
  std::vector<uint8_t> bytes = builder.Bytes();
  bytes[16] = 2;
  const UniqueFd fd = MemoryFile(bytes);
  try {
    ReadWriteLog(fd.Get(), bytes.size() + 512, kDevice);
    FAIL() << "read";
  } catch (const ErrnoException& e) {
    EXPECT_EQ(e.ErrorNumber(), EIO);
    EXPECT_EQ(std::string(e.what()).rfind("reading the log at byte 1536: ", 0), 0u) << e.what();
  }
}

}  // namespace
