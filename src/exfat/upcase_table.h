#pragma once

#include <cstdint>
#include <span>
#include <vector>

// One step of the up-case table checksum, with a 64-bit accumulator: the
// format's 32-bit rotate-right sum as long as no step carries past bit 31.
inline uint64_t UpcaseChecksumStep(uint64_t acc, uint8_t byte) {
  return ((acc << 31) & 0xFFFFFFFFu) + byte + (acc >> 1);
}

// The checksum after `count` more zero bytes, without a step for each.
uint64_t UpcaseChecksumZeros(uint64_t acc, uint64_t count);

// Expands a compressed up-case table chunk by chunk into a table of 65,536
// entries. 0xFFFF opens a run of identity entries whose length is the next
// value, except as the very last value of the table, where it is stored
// as a mapping. Values past the end of the table are counted, not stored.
class UpcaseExpander {
 public:
  explicit UpcaseExpander(std::vector<uint16_t>& table) : m_table(table) {}

  // `last` says this chunk ends the table's data. An odd trailing byte is
  // not part of any value.
  void Expand(std::span<const uint8_t> chunk, bool last);
  // As many zero values, none of them the table's last.
  void ExpandZeros(uint64_t values);
  // Index the next value would be stored at; may exceed the table's size.
  uint64_t NextIndex() const { return m_next_index; }

 private:
  void Store(uint16_t value);

  std::vector<uint16_t>& m_table;
  uint64_t m_next_index = 0;
  bool m_run_pending = false;
};
