#include "exfat/upcase_expander.h"

#include <algorithm>

#include "exfat/little_endian.h"

namespace {

constexpr uint16_t kRunMarker = 0xFFFF;

}  // namespace

void UpcaseExpander::Store(uint32_t value, uint64_t count) {
  // The part past the table's end is only counted: walking it entry by
  // entry would let a long chain of runs keep the scan busy for hours.
  const uint64_t stored = std::min(count, Room());
  for (Recording& recording : m_recordings)
    recording.stretch.stores.insert(recording.stretch.stores.end(), stored, value);
  for (uint64_t k = 0; k < stored; ++k, ++m_next_index)
    m_table[m_next_index] = static_cast<uint16_t>(value == kIdentity ? m_next_index : value);
  Count(count - stored);
}

void UpcaseExpander::Replay(const Stretch& stretch) {
  const uint64_t stored = std::min<uint64_t>(stretch.stores.size(), Room());
  const auto stores = std::span(stretch.stores).first(stored);
  for (Recording& recording : m_recordings)
    recording.stretch.stores.insert(recording.stretch.stores.end(), stores.begin(), stores.end());
  for (uint64_t k = 0; k < stored; ++k)
    m_table[m_next_index + k] = static_cast<uint16_t>(stores[k] == kIdentity ? m_next_index + k : stores[k]);
  Count(stretch.entries);
}

void UpcaseExpander::ExpandZeros(uint64_t values) {
  if (values == 0) return;
  if (m_run_pending) {  // a run of no entries
    m_run_pending = false;
    --values;
  }
  Store(0, values);
}

void UpcaseExpander::Expand(std::span<const uint8_t> chunk, bool last) {
  const size_t values = chunk.size() / 2;
  for (size_t i = 0; i < values; ++i) {
    const uint16_t value = static_cast<uint16_t>(ReadLe16(&chunk[2 * i]));
    if (value == kRunMarker) {
      if (last && i + 1 == values)
        Store(kRunMarker, 1);
      else
        m_run_pending = true;
    } else if (m_run_pending) {
      Store(kIdentity, value);
      m_run_pending = false;
    } else {
      Store(value, 1);
    }
  }
}

void UpcaseExpander::BeginStretch() {
  m_recordings.push_back({m_next_index, Stretch{m_run_pending, m_run_pending, 0, {}}});
}

UpcaseExpander::Stretch UpcaseExpander::EndStretch() {
  Stretch stretch = std::move(m_recordings.back().stretch);
  stretch.pending_after = m_run_pending;
  stretch.entries = m_next_index - m_recordings.back().start;
  m_recordings.pop_back();
  return stretch;
}

void UpcaseExpander::Repeat(const Stretch& stretch, uint64_t times) {
  // Each feeding covers an entry or more, so at most the table's size of
  // them store anything; or none ever does.
  for (; times > 0 && Room() > 0 && stretch.entries > 0; --times) Replay(stretch);
}
