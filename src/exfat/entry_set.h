#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <span>
#include <string>

// One file or directory as its directory entries describe it: a File entry,
// a Stream Extension entry and File Name entries. Assembled by the
// directory scan, then checked and, when bad, deleted on disk.
struct EntrySet {
  std::u16string raw_name;  // as stored; see DisplayName for messages
  uint32_t name_length = 0;
  uint32_t name_chars_left = 0;
  uint16_t file_attributes = 0;
  uint16_t stored_checksum = 0;
  uint16_t computed_checksum = 0;
  uint16_t stored_name_hash = 0;
  uint16_t computed_name_hash = 0;
  uint64_t data_length = 0;
  // While this set is the parent of a walk: bytes of the directory still to
  // visit.
  uint64_t valid_data_length = 0;
  uint64_t first_cluster = 0;
  bool allocation_possible = false;
  bool no_fat_chain = false;
  uint32_t create_timestamp = 0;
  uint32_t last_modified_timestamp = 0;
  uint32_t last_accessed_timestamp = 0;
  std::array<uint8_t, 5> time_extras{};
  // Where the File entry lies, for deletion.
  uint64_t cluster = 0;
  uint64_t sector_in_cluster = 0;
  uint64_t entry_index = 0;
  uint64_t entry_count = 0;

  // As new, keeping the memory of the name.
  void Reset() {
    std::u16string name = std::move(raw_name);
    name.clear();
    *this = EntrySet{};
    raw_name = std::move(name);
  }
};

constexpr uint16_t kDirectoryAttribute = 0x10;

// One step of the 16-bit rotate-right sum used by the entry-set checksum and
// the name hash.
inline uint16_t EntrySetChecksumStep(uint16_t sum, uint8_t byte) {
  return static_cast<uint16_t>(std::rotr(sum, 1) + byte);
}

// Adds a 32-byte entry to a running set checksum; the File entry's own
// checksum field (bytes 2 and 3) is left out.
uint16_t AddEntryToChecksum(uint16_t sum, std::span<const uint8_t, 32> entry, bool primary);

// Adds one up-cased UTF-16 unit, low byte first, to a name hash.
inline uint16_t AddToNameHash(uint16_t hash, uint16_t unit) {
  return EntrySetChecksumStep(EntrySetChecksumStep(hash, static_cast<uint8_t>(unit & 0xFF)),
                              static_cast<uint8_t>(unit >> 8));
}

// A stored name as printed in messages: surrogate pairs joined into one
// character, and units that cannot be printed (unpaired surrogates, NUL,
// which would cut the line short) shown as U+FFFD.
std::wstring DisplayName(const std::u16string& raw_name);
