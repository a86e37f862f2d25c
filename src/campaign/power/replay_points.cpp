#include "campaign/power/replay_points.h"

#include <random>

namespace {

ReplayPoint::Kind KindOf(const LogEntry& entry) {
  if (entry.IsMark()) return ReplayPoint::kMark;
  // A write sent with preflush and FUA is a journal's commit: the flush is
  // the stronger promise, so it names the point.
  if ((entry.flags & kLogFlush) != 0) return ReplayPoint::kFlush;
  return ReplayPoint::kFua;
}

// `most` of `points`, spread evenly, the last always among them.
std::vector<ReplayPoint> Spread(std::vector<ReplayPoint> points, size_t most) {
  if (points.size() <= most) return points;
  std::vector<ReplayPoint> kept;
  kept.reserve(most);
  // Index (k + 1) * n / most - 1 for k below most: distinct since n > most,
  // and n - 1 for the last k.
  for (size_t k = 0; k < most; ++k) kept.push_back(std::move(points[(k + 1) * points.size() / most - 1]));
  return kept;
}

// The label of the last mark at or before each entry.
class MarkTracker {
 public:
  explicit MarkTracker(const WriteLog& log) : m_log(log) {}
  // Calls must come in increasing order of `entry`.
  const std::string& Before(size_t entry) {
    for (; m_next <= entry; ++m_next)
      if (m_log.entries[m_next].IsMark()) m_mark = &m_log.entries[m_next].mark;
    return m_mark != nullptr ? *m_mark : m_none;
  }

 private:
  const WriteLog& m_log;
  size_t m_next = 0;
  const std::string* m_mark = nullptr;
  const std::string m_none;
};

// A run of prefixes inside one epoch: lengths `first` to `last`, inclusive.
struct TornRange {
  size_t first;
  size_t last;
};

}  // namespace

std::vector<ReplayPoint> DurablePoints(const WriteLog& log, size_t start, size_t most) {
  std::vector<ReplayPoint> points;
  MarkTracker marks(log);
  // The first durable entry makes a point even when nothing came before it
  // from `start` on: that is the state the workload began from.
  bool changed = true;
  for (size_t i = start; i < log.entries.size(); ++i) {
    const LogEntry& entry = log.entries[i];
    if (entry.ChangesDevice()) changed = true;
    if (!entry.IsDurable()) continue;
    const ReplayPoint point{i + 1, entry.number, KindOf(entry), marks.Before(i)};
    if (changed) {
      points.push_back(point);
    } else {
      // Of a run with nothing between, the last entry is kept: its prefix
      // takes the whole run, so a workload that syncs and then marks the
      // step it finished has its point named after that mark, and the next
      // epoch begins where the point ends. A mark names the point over a
      // flush or FUA that follows it, as it is what the workload meant.
      ReplayPoint& last = points.back();
      last.applied = point.applied;
      last.after_mark = point.after_mark;
      if (point.kind == ReplayPoint::kMark || last.kind != ReplayPoint::kMark) {
        last.entry = point.entry;
        last.kind = point.kind;
      }
    }
    changed = false;
  }
  return Spread(std::move(points), most);
}

std::vector<ReplayPoint> TornPoints(const WriteLog& log, size_t start, uint32_t seed, size_t most) {
  std::vector<TornRange> ranges;
  size_t candidates = 0;
  size_t first_data = 0;
  size_t last_data = 0;
  size_t data_entries = 0;
  const auto close_epoch = [&] {
    // Stop after the epoch's first change at the earliest, before its
    // last at the latest.
    if (data_entries >= 2) {
      ranges.push_back({first_data + 1, last_data});
      candidates += last_data - first_data;
    }
    data_entries = 0;
  };
  for (size_t i = start; i < log.entries.size(); ++i) {
    const LogEntry& entry = log.entries[i];
    if (entry.IsDurable()) {
      close_epoch();
    } else if (entry.ChangesDevice()) {
      if (data_entries++ == 0) first_data = i;
      last_data = i;
    }
  }
  close_epoch();

  // Selection sampling (Knuth's algorithm S): each candidate in turn is
  // taken with the chance that leaves exactly `most` taken, so the points
  // come out sorted and distinct. The generator's raw output is used, as
  // the standard library's distributions differ between implementations.
  std::mt19937 generator(seed);
  std::vector<ReplayPoint> points;
  MarkTracker marks(log);
  size_t seen = 0;
  for (const TornRange& range : ranges) {
    for (size_t applied = range.first; applied <= range.last; ++applied, ++seen) {
      const size_t wanted = std::min(most, candidates) - points.size();
      if (wanted == 0) return points;
      const double draw = static_cast<double>(generator()) / 4294967296.0;
      if (static_cast<double>(candidates - seen) * draw >= static_cast<double>(wanted)) continue;
      points.push_back({applied, log.entries[applied - 1].number, ReplayPoint::kTorn, marks.Before(applied - 1)});
    }
  }
  return points;
}
