#include "exfat/upcase_table.h"

#include <algorithm>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "exfat/little_endian.h"

namespace {

constexpr uint16_t kRunMarker = 0xFFFF;

}  // namespace

void UpcaseExpander::Store(uint16_t value) {
  if (m_next_index < m_table.size()) m_table[m_next_index] = value;
  ++m_next_index;
}

uint64_t UpcaseChecksumZeros(uint64_t acc, uint64_t count) {
  // Above 32 bits the sum sheds a bit a step; below, a zero byte only
  // rotates it right by one, 32 steps a full turn.
  for (; count > 0 && acc > 0xFFFFFFFFu; --count) acc = UpcaseChecksumStep(acc, 0);
  const unsigned turn = static_cast<unsigned>(count % 32);
  return turn == 0 ? acc : ((acc >> turn) | (acc << (32 - turn))) & 0xFFFFFFFFu;
}

void UpcaseExpander::ExpandZeros(uint64_t values) {
  if (values == 0) return;
  if (m_run_pending) {  // a run of no entries
    m_run_pending = false;
    --values;
  }
  const uint64_t room = m_next_index < m_table.size() ? m_table.size() - m_next_index : 0;
  std::fill_n(m_table.begin() + static_cast<ptrdiff_t>(m_table.size() - room), std::min(values, room), 0);
  m_next_index += values;
}

void UpcaseExpander::Expand(std::span<const uint8_t> chunk, bool last) {
  const size_t values = chunk.size() / 2;
  for (size_t i = 0; i < values; ++i) {
    const uint16_t value = static_cast<uint16_t>(ReadLe16(&chunk[2 * i]));
    if (value == kRunMarker) {
      if (last && i + 1 == values)
        Store(kRunMarker);
      else
        m_run_pending = true;
    } else if (m_run_pending) {
      // Identity entries: entry i maps to i. The part of a run past the
      // table's end is only counted: walking it entry by entry would let a
      // long chain of runs keep the scan busy for hours.
      const uint64_t room = m_next_index < m_table.size() ? m_table.size() - m_next_index : 0;
      const uint64_t stored = std::min<uint64_t>(value, room);
      for (uint64_t k = 0; k < stored; ++k) Store(static_cast<uint16_t>(m_next_index));
      m_next_index += value - stored;
      m_run_pending = false;
    } else {
      Store(value);
    }
  }
}

bool Fat::LoadUpcaseTable(uint64_t first_cluster, uint64_t data_length, uint32_t table_checksum) {
  const std::vector<uint16_t> before = std::move(m_upcase_table);
  // Entries the data never reaches map to themselves.
  m_upcase_table.resize(kUpcaseTableEntries);
  for (size_t i = 0; i < kUpcaseTableEntries; ++i) m_upcase_table[i] = static_cast<uint16_t>(i);

  UpcaseExpander expander(m_upcase_table);
  uint64_t checksum = 0;
  // A table read round a looping chain, or through sectors past the end of
  // the device, would be read as long as its length says, the same bytes
  // over and over. Past as many bytes read as the device holds and a
  // table's worth more, it is taken to be of no use. Only the bytes read
  // count: the zeros past the device sector in a large sector cost nothing,
  // so a table of few huge sectors is followed to its end.
  const uint64_t budget = static_cast<uint64_t>(m_device.SectorCount()) * kSectorBytes + 2 * kUpcaseTableEntries;
  uint64_t read = 0;
  std::vector<uint8_t> sector(kSectorBytes);
  Prefetch(first_cluster, false, std::min<uint64_t>(data_length, budget));
  const bool walked = WalkSectors(
      first_cluster, data_length, [this](uint64_t cluster) { MarkChecked(cluster, true); },
      [&](const SectorChunk& chunk) {
        // A sector that cannot be read leaves the buffer as it was.
        m_device.ReadSectors(1, chunk.sector, sector, chunk.rest);
        // The bytes past the device sector are zeros.
        const std::span<const uint8_t> bytes(sector.data(), std::min(chunk.bytes, uint64_t{kSectorBytes}));
        const uint64_t zeros = chunk.bytes - bytes.size();
        for (uint8_t b : bytes) checksum = UpcaseChecksumStep(checksum, b);
        checksum = UpcaseChecksumZeros(checksum, zeros);
        expander.Expand(bytes, chunk.last && zeros == 0);
        expander.ExpandZeros(zeros / 2);  // the real bytes are even in number when zeros follow
        read += bytes.size();
        return read > budget ? Next::kGiveUp : Next::kGoOn;
      },
      // A looping table whose values have run past the table's end could
      // only keep running past it: it is of no use.
      [&](uint64_t, uint64_t) { return expander.NextIndex() > m_upcase_table.size() ? Lap::kUnusable : Lap::kGoOn; });
  m_changes += m_upcase_table != before;
  return walked && checksum == table_checksum;
}
