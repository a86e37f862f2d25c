#include "campaign/power/power_cut_row.h"

#include <algorithm>

#include <fmt/format.h>

#include "campaign/machine/device_mapper.h"
#include "campaign/machine/sector_snapshot.h"
#include "campaign/power/cut_volume.h"
#include "campaign/power/recording.h"
#include "campaign/power/replay_points.h"
#include "campaign/power/workload.h"
#include "campaign/trial/checker.h"
#include "campaign/trial/read_back.h"
#include "campaign/trial/repair_step.h"
#include "campaign/trial/volume_under_test.h"

namespace {

// A repair that still changes the volume after this many passes does not converge.
constexpr size_t kPasses = 3;

class PowerCutRow {
 public:
  PowerCutRow(Context& context, const Row& row, uint32_t seed, RowListener& listener)
      : m_context(context), m_row(row), m_tree("", seed), m_workload(m_tree, seed), m_new2(NewFile("new2", seed)),
        m_volume(context, listener, row.volume_bytes) {}

  void RunMarkRow() {
    if (const std::string stop = MakeAtMark(); !stop.empty())
      return m_volume.SkipSteps({"check", "mount", "read", "flushes", "repair"}, stop);
    const std::vector<TreeFile> durable = m_workload.DurableAt(m_row.power_cut);
    Check();
    StepObservation mount = m_volume.Begin("mount");
    mount.said = mount.cell = m_volume.Mount(mount);
    mount.promised_mounts.push_back(mount.said);
    m_volume.End(std::move(mount));
    if (m_volume.Mounted()) {
      StepObservation read = m_volume.Begin("read");
      read.said = read.cell = Summarize(m_volume.Read(read, durable, Expect::kDurable));
      m_volume.Unmount(read);
      m_volume.End(std::move(read));
    } else {
      m_volume.SkipSteps({"read"}, "not mounted");
    }
    Flushes();
    RepairStep(
        m_volume,
        [&](StepObservation& step) {
          step.lines.push_back("VolumeDirty after the repair: " + VolumeDirty(m_volume.Device()));
          return Summarize(m_volume.Read(step, durable, Expect::kDurable));
        },
        m_new2);
  }

  void RunTornRow() {
    StepObservation replay = m_volume.Begin("replay");
    replay.lines.push_back(VolumeLine(m_row.volume_bytes, m_row.cluster_bytes, m_volume.Device()));
    std::vector<ReplayPoint> points;
    if (Recorded(replay)) {
      points = TornPoints(Log().entries, 0, m_context.seed, m_context.torn_points);
      for (const ReplayPoint& point : points) replay.lines.push_back(PointLine(point));
      replay.said = replay.cell = fmt::format("{} points inside the steps", points.size());
      if (points.empty()) replay.skipped = "the log has no step with two writes";
    }
    const std::string stop = !replay.skipped.empty() ? replay.skipped : replay.not_carried_out;
    m_volume.End(std::move(replay));
    if (!stop.empty()) return m_volume.SkipSteps({"check", "repair"}, stop);
    std::vector<bool> damaged(points.size());
    StepObservation check = m_volume.Begin("check");
    for (size_t i = 0; i < points.size(); ++i) {
      const std::string dirty = Restore(points[i], check);
      if (dirty.empty()) break;
      const CheckerRun run = RunChecker(m_context.checker, "-n", m_volume.Device(), m_context.limits.checker);
      check.runs.push_back({Purpose::kLook, run.label, run.run.end});
      damaged[i] = !run.Clean();
      if (damaged[i])
        check.lines.push_back(fmt::format("entry {}: {}, VolumeDirty {}: {}", points[i].entry, run.Verdict(), dirty,
                                          run.FirstLine()));
    }
    check.said = check.cell =
        fmt::format("{} of {} damaged", std::count(damaged.begin(), damaged.end(), true), points.size());
    m_volume.End(std::move(check));
    TornRepairs(points, damaged);
  }

 private:
  const Recording& Log() const { return *m_context.recording; }

  // The log made by the first power-cut row, or now; false when there is none.
  bool Recorded(StepObservation& step) {
    Recording& recording = *m_context.recording;
    if (!recording.Made() && recording.stop.empty() && recording.missing.empty())
      recording.missing = DmTargetMissing("log-writes");
    if (!recording.missing.empty()) {
      step.skipped = recording.missing;
      return false;
    }
    if (!recording.Made() && recording.stop.empty()) {
      recording.stop = RecordWorkload(m_context, m_row, m_tree, m_workload, m_volume, step, recording);
      if (recording.stop.empty()) return true;
    }
    if (!recording.Made()) {
      step.not_carried_out = recording.stop;
      return false;
    }
    step.lines.push_back("logger: " + recording.logger);
    return true;
  }

  // The volume cut at the point; VolumeDirty there, or "" when the
  // campaign could not do it (said in `step`).
  std::string Restore(const ReplayPoint& point, StepObservation& step) {
    try {
      CutVolume(Log().base, Log().entries, Log().log.Get(), m_volume.Device(), point);
    } catch (const std::exception& e) {
      step.not_carried_out = fmt::format("the log could not be replayed to entry {}: {}", point.entry, e.what());
      return "";
    }
    return VolumeDirty(m_volume.Device());
  }

  // The volume as a cut right after the row's mark leaves it; what stops
  // the row, or "".
  std::string MakeAtMark() {
    StepObservation step = m_volume.Begin("make");
    step.lines.push_back(VolumeLine(m_row.volume_bytes, m_row.cluster_bytes, m_volume.Device()));
    if (Recorded(step)) {
      const std::vector<LogEntry>& entries = Log().entries.entries;
      const auto mark = std::find_if(entries.begin(), entries.end(),
                                     [&](const LogEntry& e) { return e.IsMark() && e.mark == m_row.power_cut; });
      if (mark == entries.end()) {
        step.not_carried_out = "the log has no mark " + m_row.power_cut;
      } else {
        m_point = {static_cast<size_t>(mark - entries.begin()) + 1, mark->number, ReplayPoint::kMark, mark->mark};
        step.lines.push_back(PointLine(m_point));
        const std::string dirty = Restore(m_point, step);
        if (!dirty.empty()) {
          step.lines.push_back("VolumeDirty: " + dirty);
          step.said = step.cell = fmt::format("replayed {} {}", m_point.applied, m_point.applied == 1 ? "entry" : "entries");
        }
      }
    }
    const std::string stop = !step.skipped.empty() ? step.skipped : step.not_carried_out;
    m_volume.End(std::move(step));
    return stop;
  }

  // The flush and FUA points inside the step before the mark (fsync of
  // one file while another is written): each must be clean and mount, with
  // what was durable before the step intact, and repair to that. The
  // volume is left at the mark again, for the repair step.
  void Flushes() {
    StepObservation step = m_volume.Begin("flushes");
    const std::vector<ReplayPoint> points = FlushesBeforeMark();
    const std::vector<TreeFile> durable = m_workload.DurableAt(m_row.power_cut, true);
    size_t kept = 0;  // points clean, taken, every durable file there, and so after a repair
    for (const ReplayPoint& point : points) {
      std::string said = PointLine(point);
      if (Restore(point, step).empty()) break;
      const CheckerRun run = RunChecker(m_context.checker, "-n", m_volume.Device(), m_context.limits.checker);
      step.runs.push_back({Purpose::kMustBeClean, run.label, run.run.end});
      said += ": " + (run.Verdict() == "damage" ? "damage: " + run.FirstLine() : run.Verdict());
      const std::string mounted = m_volume.Mount(step);
      step.promised_mounts.push_back(mounted);
      said += "; mount " + mounted;
      bool intact = false;
      if (m_volume.Mounted()) {
        const std::vector<FileRead> reads = m_volume.Read(step, durable, Expect::kDurable);
        intact = std::all_of(reads.begin(), reads.end(), [](const FileRead& r) { return r.state == FileState::kSame; });
        said += "; " + Summarize(reads);
        m_volume.Unmount(step);
      }
      const Repaired repair = RepairHere(step, durable);
      kept += run.Clean() && mounted == "taken" && intact && repair.clean && repair.intact && repair.passes <= 1;
      step.lines.push_back(said + "; then " + repair.said);
    }
    if (points.empty()) step.skipped = "no flush inside the step";
    else if (step.not_carried_out.empty()) Restore(m_point, step);
    step.said = step.cell = points.empty() ? "none"
                                           : fmt::format("{} of {} {} kept", kept, points.size(),
                                                         points.size() == 1 ? "point" : "points");
    m_volume.End(std::move(step));
  }

  // The durable points after the mark before this row's and before its own.
  std::vector<ReplayPoint> FlushesBeforeMark() const {
    const std::vector<LogEntry>& entries = Log().entries.entries;
    size_t previous = 0;  // entries applied at the mark before
    for (size_t i = 0; i + 1 < m_point.applied; ++i)
      if (entries[i].IsMark()) previous = i + 1;
    std::vector<ReplayPoint> inside;
    for (const ReplayPoint& point : DurablePoints(Log().entries, 0, m_context.durable_points))
      if (point.kind != ReplayPoint::kMark && point.applied > previous && point.applied < m_point.applied)
        inside.push_back(point);
    return inside;
  }

  void Check() {
    StepObservation step = m_volume.Begin("check");
    const CheckerRun run = m_volume.Check(step, "-n", Purpose::kMustBeClean);
    step.said = step.cell = run.Verdict() == "damage" ? "damage: " + run.FirstLine() : run.Verdict();
    m_volume.End(std::move(step));
  }

  // The torn points repaired in turn, each from its cut.
  void TornRepairs(const std::vector<ReplayPoint>& points, const std::vector<bool>& damaged) {
    StepObservation step = m_volume.Begin("repair");
    size_t repaired = 0, lost = 0;
    for (size_t i = 0; i < points.size(); ++i) {
      if (Restore(points[i], step).empty()) break;
      const Repaired repair = RepairHere(step, DurableBefore(points[i]));
      repaired += damaged[i] && repair.clean;
      lost += !repair.intact;
      if (damaged[i] || !repair.clean || !repair.intact || repair.passes > 1)
        step.lines.push_back(fmt::format("entry {}: {}", points[i].entry, repair.said));
    }
    step.said = step.cell = fmt::format("{} of {} damaged repaired, {} with a durable file lost", repaired,
                                        std::count(damaged.begin(), damaged.end(), true), lost);
    m_volume.End(std::move(step));
  }

  struct Repaired {
    bool clean = false;   // fsck -n found the repaired volume clean
    bool intact = false;  // every durable file read as written
    size_t passes = 0;    // fsck -y passes that changed something
    std::string said;
  };

  // The volume as it is repaired: fsck -y until a pass changes nothing, at
  // most kPasses times; -n; the durable files read back. The passes of the
  // repair that needed the most stand for the step.
  Repaired RepairHere(StepObservation& step, const std::vector<TreeFile>& durable) {
    std::vector<uint64_t> passes;
    do {
      const SectorSnapshot before(m_volume.Device());
      const CheckerRun repair = RunChecker(m_context.checker, "-y", m_volume.Device(), m_context.limits.checker);
      step.runs.push_back({Purpose::kRepair, repair.label, repair.run.end});
      passes.push_back(SectorSnapshot(m_volume.Device()).ChangedSince(before).size());
    } while (passes.back() != 0 && passes.size() < kPasses);
    if (passes.size() > step.repair_passes.size()) step.repair_passes = passes;
    const CheckerRun after = RunChecker(m_context.checker, "-n", m_volume.Device(), m_context.limits.checker);
    step.runs.push_back({Purpose::kMustBeClean, after.label, after.run.end});
    Repaired repaired;
    repaired.clean = after.Clean();
    repaired.passes = static_cast<size_t>(std::count_if(passes.begin(), passes.end(), [](uint64_t n) { return n != 0; }));
    repaired.said = passes.front() == 0 ? "the repair changed nothing"
                                        : fmt::format("repaired {} {}", passes.front(), passes.front() == 1 ? "sector" : "sectors");
    for (size_t pass = 1; pass < passes.size(); ++pass)
      if (passes[pass] != 0 || pass > 1) repaired.said += fmt::format(", pass {} changed {}", pass + 1, passes[pass]);
    repaired.said += after.Clean() ? ", then clean" : ", then " + after.Verdict() + ": " + after.FirstLine();
    const std::string mounted = m_volume.Mount(step);
    std::vector<FileRead> reads;
    if (m_volume.Mounted()) {
      reads = m_volume.Read(step, durable, Expect::kDurable);
      m_volume.Unmount(step);
    } else {
      // Files the repaired volume does not show are lost all the same.
      for (const TreeFile& file : durable)
        reads.push_back({file.label, Expect::kDurable, FileState::kMissing, "not mounted: " + mounted});
      step.files.insert(step.files.end(), reads.begin(), reads.end());
    }
    repaired.intact = std::all_of(reads.begin(), reads.end(), [](const FileRead& r) { return r.state == FileState::kSame; });
    repaired.said += "; " + Summarize(reads);
    return repaired;
  }

  // The files a cut at `point` must leave: those durable at the mark that
  // ends its step, but for what the step touches; past the workload's last
  // mark (where the logger's own end mark closes the log), all it left.
  std::vector<TreeFile> DurableBefore(const ReplayPoint& point) const {
    const std::vector<LogEntry>& entries = Log().entries.entries;
    const std::vector<std::string>& marks = m_workload.Marks();
    for (size_t i = point.applied; i < entries.size(); ++i)
      if (entries[i].IsMark() && std::find(marks.begin(), marks.end(), entries[i].mark) != marks.end())
        return m_workload.DurableAt(entries[i].mark, true);
    return m_workload.DurableAt(marks.back());
  }

  Context& m_context;
  const Row& m_row;
  const KnownTree m_tree;
  const Workload m_workload;
  const TreeFile m_new2;
  VolumeUnderTest m_volume;
  ReplayPoint m_point;  // a mark row's: the cut right after its mark
};

}  // namespace

void RunPowerCutRow(Context& context, const Row& row, uint32_t seed, RowListener& listener) {
  PowerCutRow power_cut(context, row, seed, listener);
  if (row.power_cut == kTornRow) power_cut.RunTornRow();
  else power_cut.RunMarkRow();
}
