#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "campaign/power/write_log.h"

// A prefix of a log whose replay gives a state the device may be left in by
// a power cut.
struct ReplayPoint {
  enum Kind { kFlush, kFua, kMark, kTorn };

  size_t applied = 0;  // entries applied: the prefix's length
  uint64_t entry = 0;  // the entry that names the point: a run's mark, if it has one
  Kind kind = kFlush;
  std::string after_mark;  // the last mark at or before that entry, "" if none
};

// A flush, FUA or mark ends a prefix the medium is known to have held: the
// kernel logs a write only once a flush or FUA has made it durable, so what
// comes before such an entry was on the medium by then. One point per entry
// from `start` on (where the workload begins), but durable entries with no
// write or discard between them make a single point, as their replays are
// the same. When there are more than `most`, an even spread of them, always
// with the last.
std::vector<ReplayPoint> DurablePoints(const WriteLog& log, size_t start, size_t most);

// Prefixes from `start` on that stop inside an epoch (the entries between two durable ones,
// or after the last durable one to the log's end), after at least one of
// its writes or discards and before its last: what a cut leaves part way
// through an epoch, its writes taken in the log's order. At most `most` of
// them, drawn by a Mersenne Twister seeded with `seed` (the same seed
// draws the same points, on any build), in order, none twice.
std::vector<ReplayPoint> TornPoints(const WriteLog& log, size_t start, uint32_t seed, size_t most);
