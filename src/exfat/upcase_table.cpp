// Loading the up-case table: its chain is walked to the table's length,
// its bytes folded into the checksum and expanded into the table. The
// walk reads as much as the device holds; what a length far past that
// would feed again and again (a looping chain, sectors past the end of the
// device, the zeros of sectors larger than a device sector) is fed in
// closed form, so that the outcome is the one of every byte fed in turn.
#include <algorithm>
#include <optional>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "exfat/upcase_checksum.h"
#include "exfat/upcase_expander.h"

namespace {

struct Loader {
  UpcaseChecksum checksum;
  UpcaseExpander expander;

  // `bytes` read, then `zeros` zero bytes.
  void Feed(std::span<const uint8_t> bytes, uint64_t zeros, bool last) {
    checksum.Add(bytes);
    checksum.AddZeros(zeros);
    expander.Expand(bytes, last && zeros == 0);
    expander.ExpandZeros(zeros / 2);  // the bytes read are even in number when zeros follow
  }

  // Feeds what `feed` feeds, `times` times over. A feeding leaves a run
  // pending or not by its last value alone, so from the second on each
  // starts as the one before.
  template <typename FeedOnce>
  void FeedRepeatedly(uint64_t stretch_bytes, uint64_t times, const FeedOnce& feed) {
    const uint64_t tail = UpcaseChecksum::FeedsAfterRepeat(stretch_bytes);
    if (times <= 2 + tail) {
      for (; times > 0; --times) feed();
      return;
    }
    feed();
    const uint64_t before = checksum.Value();
    expander.BeginStretch();
    feed();
    Repeat(stretch_bytes, before, expander.EndStretch(), times - 2 - tail);
    for (uint64_t i = 0; i < tail; ++i) feed();
  }

  // `times` more feedings of a stretch that took the sum from `before` to
  // where it is and did `seen` to the table.
  void Repeat(uint64_t stretch_bytes, uint64_t before, const UpcaseExpander::Stretch& seen, uint64_t times) {
    checksum.Repeat(stretch_bytes, before, checksum.Value(), times);
    expander.Repeat(seen, times);
  }
};

}  // namespace

bool Fat::LoadUpcaseTable(uint64_t first_cluster, uint64_t data_length, uint32_t table_checksum) {
  const std::vector<uint16_t> before = std::move(m_upcase_table);
  // Entries the data never reaches map to themselves.
  m_upcase_table.resize(kUpcaseTableEntries);
  for (size_t i = 0; i < kUpcaseTableEntries; ++i) m_upcase_table[i] = static_cast<uint16_t>(i);

  Loader loader{{}, UpcaseExpander(m_upcase_table)};
  const uint64_t bytes_per_sector = m_boot_sector.BytesPerSector();
  const uint64_t device_sectors = static_cast<uint64_t>(m_device.SectorCount());
  std::vector<uint8_t> sector(kSectorBytes);
  // The sector buffer and the sum as they were the last time the walk came
  // round to one cluster of a loop.
  struct Mark {
    uint64_t offset;
    uint64_t sum;
    std::vector<uint8_t> buffer;
  };
  std::optional<Mark> mark;

  Prefetch(first_cluster, false, data_length);
  const bool walked = WalkSectors(
      first_cluster, data_length, [this](uint64_t cluster) { MarkChecked(cluster, true); },
      [&](const SectorChunk& chunk) {
        // A sector that cannot be read leaves the buffer as it was.
        const bool read = m_device.ReadSectors(1, chunk.sector, sector, chunk.rest);
        // The bytes past the device sector are zeros.
        const uint64_t real = std::min(chunk.bytes, uint64_t{kSectorBytes});
        const std::span<const uint8_t> bytes(sector.data(), real);
        loader.Feed(bytes, chunk.bytes - real, chunk.last);
        if (read || chunk.sector < device_sectors || chunk.rest == 0) return Next::kGoOn;
        // The rest of the cluster lies past the end of the device too: each
        // of its sectors feeds the same buffer again, the walk's very last
        // one perhaps only in part.
        const uint64_t left = data_length - chunk.offset - chunk.bytes;
        const uint64_t whole = std::min(chunk.rest, left / bytes_per_sector);
        loader.FeedRepeatedly(bytes_per_sector, whole,
                              [&] { loader.Feed(sector, bytes_per_sector - kSectorBytes, false); });
        if (whole < chunk.rest) {
          const uint64_t part = left - whole * bytes_per_sector;
          const uint64_t part_real = std::min(part, uint64_t{kSectorBytes});
          loader.Feed(std::span(sector).first(part_real), part - part_real, true);
        }
        return Next::kSkipCluster;
      },
      [](uint64_t, uint64_t) { return Lap::kGoOn; },
      // Round a loop, a lap that starts from the same cluster with the same
      // buffer and pending run as the one before does what it did: the laps
      // still to come but the last few are fed in closed form.
      [&](uint64_t offset, uint64_t lap_bytes, uint64_t left) -> uint64_t {
        if (mark && offset != mark->offset + lap_bytes) return 0;  // another cluster of the loop
        if (mark) {
          const UpcaseExpander::Stretch lap = loader.expander.EndStretch();
          const uint64_t tail = UpcaseChecksum::FeedsAfterRepeat(lap_bytes);
          if (mark->buffer == sector && lap.pending_before == lap.pending_after && left / lap_bytes > tail) {
            const uint64_t skipped = left / lap_bytes - tail;
            loader.Repeat(lap_bytes, mark->sum, lap, skipped);
            mark.reset();
            return skipped;
          }
        }
        mark = Mark{offset, loader.checksum.Value(), sector};
        loader.expander.BeginStretch();
        return 0;
      });
  m_changes += m_upcase_table != before;
  return walked && loader.checksum.Value() == table_checksum;
}
