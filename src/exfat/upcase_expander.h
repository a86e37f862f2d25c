#pragma once

#include <cstdint>
#include <span>
#include <vector>

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

  // What one feeding of a stretch of data did, relative to where it
  // started: whether a run was pending before and after it, how many
  // entries it covered, and what it stored. Entries it reached past the
  // table's end need no record: a later feeding starts at the same entry or
  // further on, and reaches them past the end too.
  struct Stretch {
    bool pending_before = false;
    bool pending_after = false;
    uint64_t entries = 0;
    std::vector<uint32_t> stores;  // a value, or kIdentity
  };
  // Stretches may nest: an inner one's stores are the outer one's too.
  void BeginStretch();
  Stretch EndStretch();
  // Expands `times` more feedings of a stretch that did what `stretch` says
  // when fed last, the pending run the same before and after it: each
  // later feeding starts as it did and does the same.
  void Repeat(const Stretch& stretch, uint64_t times);

 private:
  static constexpr uint32_t kIdentity = 0x10000;  // entry i maps to i

  uint64_t Room() const { return m_next_index < m_table.size() ? m_table.size() - m_next_index : 0; }
  // Stores `count` entries of `value` from the next index on, as far as the
  // table goes, and counts them all.
  void Store(uint32_t value, uint64_t count);
  // Stores a stretch's record from the next index on and counts its entries.
  void Replay(const Stretch& stretch);
  void Count(uint64_t entries) {
    m_next_index = entries > UINT64_MAX - m_next_index ? UINT64_MAX : m_next_index + entries;
  }

  std::vector<uint16_t>& m_table;
  uint64_t m_next_index = 0;  // stays at its highest once past all counting
  bool m_run_pending = false;
  struct Recording {
    uint64_t start;
    Stretch stretch;
  };
  std::vector<Recording> m_recordings;  // innermost last
};
