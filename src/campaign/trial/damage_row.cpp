#include "campaign/trial/damage_row.h"

#include <fmt/format.h>

#include "campaign/machine/sector_snapshot.h"
#include "campaign/trial/read_back.h"
#include "campaign/trial/volume_layout.h"
#include "campaign/trial/volume_under_test.h"

namespace {

using std::chrono::seconds;

constexpr seconds kToolLimit{600};
constexpr seconds kPopulateLimit{600};
// A damage drawn at random may change nothing; it is drawn again so often.
constexpr int kDraws = 20;
constexpr size_t kSectorsListed = 8;

// The tool's lines past its announcement and the geometry it prints.
void ToolSaid(const std::vector<std::string>& lines, StepObservation& step) {
  for (const std::string& line : lines)
    if (line.rfind("Device ", 0) != 0 && line.rfind("BootSector info", 0) != 0 && line.rfind('\t', 0) != 0)
      step.lines.push_back("qvexfat-test: " + line);
}

std::string ChangedLine(const std::vector<uint64_t>& sectors) {
  std::string line = fmt::format("changed: {} {}:", sectors.size(), sectors.size() == 1 ? "sector" : "sectors");
  for (size_t i = 0; i < sectors.size() && i < kSectorsListed; ++i) line += fmt::format(" {}", sectors[i]);
  return line + (sectors.size() > kSectorsListed ? " ..." : "");
}

std::string Sectors(uint64_t count) { return std::to_string(count) + (count == 1 ? " sector" : " sectors"); }

class DamageRow {
 public:
  DamageRow(Context& context, const Row& row, uint32_t seed, RowListener& listener)
      : m_context(context), m_row(row), m_tree(row.tree_base, seed),
        m_new(NewFile("new", seed)), m_new2(NewFile("new2", seed)), m_volume(context, listener, row.volume_bytes) {}

  void Run() {
    const std::string stop = Make();
    if (!stop.empty()) return Skip({"check", "mount", "read", "write", "repair"}, stop);
    Check();
    if (MountStep()) {
      Read();
      Write();
    } else {
      Skip({"read", "write"}, "not mounted");
    }
    Repair();
  }

 private:
  void Skip(const std::vector<std::string>& names, const std::string& why) {
    for (const std::string& name : names) {
      StepObservation step = m_volume.Begin(name);
      step.skipped = why;
      m_volume.End(std::move(step));
    }
  }

  // What stops the row after the make step, or "".
  std::string Make() {
    StepObservation step = m_volume.Begin("make");
    step.lines.push_back(VolumeLine(m_row.volume_bytes, m_row.cluster_bytes, m_volume.Device()));
    std::string stop = MakeVolume(step);
    if (stop.empty()) stop = Damage(step);
    const bool skipped = !step.skipped.empty();
    m_volume.End(std::move(step));
    return stop.empty() ? "" : skipped ? stop : "not run: the volume was not made";
  }

  std::string MakeVolume(StepObservation& step) {
    const ProgramRun mkfs = RunProgram(
        {"mkfs.exfat", "-c", std::to_string(m_row.cluster_bytes), m_volume.Device()}, kToolLimit);
    step.runs.push_back({Purpose::kSetUp, "mkfs.exfat", mkfs.end});
    if (!mkfs.end.Succeeded()) return step.not_carried_out = "mkfs.exfat " + mkfs.end.Describe() + ": " + LastWord(mkfs.Lines());
    const std::string mount = m_volume.Mount(step);
    if (!m_volume.Mounted() || m_volume.MountedReadOnly())
      return step.not_carried_out = "the driver did not take the new volume: " + mount;
    const auto written = RunIsolated<bool>(kPopulateLimit, [this] {
      m_tree.Populate(m_context.mount_point);
      return true;
    });
    step.runs.push_back({Purpose::kSetUp, "writing the tree", written.end});
    m_volume.Unmount(step);
    if (!written.result)
      return step.not_carried_out = "writing the tree failed: " + (written.output.empty() ? written.end.Describe() : written.output);
    step.lines.push_back("tree: " + std::to_string(m_tree.Files().size()) + " files in " +
                         std::to_string(m_tree.DirectoryCount()) + " directories, written through the driver" +
                         (m_row.tree_base.empty() ? "" : " below " + m_row.tree_base + "/"));
    const CheckerRun baseline = m_volume.Check(step, "-n", Purpose::kBaseline);
    if (!baseline.Clean()) return step.not_carried_out = "the checker did not find the fresh volume clean: " + baseline.Verdict();
    return "";
  }

  std::string Damage(StepObservation& step) {
    try {
      m_aim = m_row.aim(ReadLayout(m_volume.Device()), m_tree);
    } catch (const std::exception& e) {
      return step.not_carried_out = std::string("the volume's layout could not be read: ") + e.what();
    }
    if (m_aim.description.empty()) return step.skipped = m_aim.why_not;
    step.lines.push_back("damage: qvexfat-test -d " + m_volume.Device() + " -c " + m_aim.description);
    for (int draw = 1; draw <= kDraws; ++draw) {
      const SectorSnapshot before(m_volume.Device());
      const ProgramRun tool = RunProgram({m_context.tool, "-d", m_volume.Device(), "-c", m_aim.description}, kToolLimit);
      step.runs.push_back({Purpose::kSetUp, "qvexfat-test -d", tool.end});
      ToolSaid(tool.Lines(), step);
      if (!tool.end.Succeeded()) return step.not_carried_out = "qvexfat-test " + tool.end.Describe() + ": " + LastWord(tool.Lines());
      const std::vector<uint64_t> changed = SectorSnapshot(m_volume.Device()).ChangedSince(before);
      if (!changed.empty()) {
        step.lines.push_back(ChangedLine(changed));
        step.said = step.cell = "damaged " + Sectors(changed.size()) + Hits();
        return "";
      }
      step.lines.push_back("changed: nothing (the damage left every byte as it was); drawn again");
    }
    return step.skipped = "the damage changed no byte in " + std::to_string(kDraws) + " draws";
  }

  std::string Hits() const {
    std::string hits;
    for (const std::string& label : m_aim.hits) hits += (hits.empty() ? "; hits " : ", ") + label;
    return hits;
  }

  void Check() {
    StepObservation step = m_volume.Begin("check");
    const CheckerRun run = m_volume.Check(step, "-n", Purpose::kLook);
    const std::string verdict = run.Verdict();
    step.said = verdict == "clean" ? "missed: " + run.FirstLine()
                : verdict == "damage" ? "caught: " + run.FirstLine()
                                      : "the checker gave no verdict: " + run.run.end.Describe();
    step.cell = verdict == "clean" ? "no" : verdict == "damage" ? "yes" : verdict;
    m_volume.End(std::move(step));
  }

  bool MountStep() {
    StepObservation step = m_volume.Begin("mount");
    step.said = step.cell = m_volume.Mount(step);
    const bool mounted = m_volume.Mounted();
    m_volume.End(std::move(step));
    return mounted;
  }

  void Read() {
    StepObservation step = m_volume.Begin("read");
    step.said = step.cell = Summarize(m_volume.Read(step, m_tree.Files(), Expect::kAsWritten));
    m_volume.End(std::move(step));
  }

  void Write() {
    StepObservation step = m_volume.Begin("write");
    const std::string wrote = m_volume.WriteSynced(step, m_new);
    m_new_written = wrote == "written";
    std::string said = m_new_written ? wrote : "write " + wrote;
    if (!m_volume.MountedReadOnly() && Readonly(step)) said += "; went read-only";
    m_volume.Unmount(step);
    said += "; remount " + m_volume.Mount(step);
    if (m_volume.Mounted()) {
      std::vector<FileRead> reads = m_volume.Read(step, m_tree.Files(), Expect::kAsWritten);
      if (m_new_written) {
        reads.push_back(m_volume.Read(step, {m_new}, Expect::kDurable).front());
        m_new_intact = reads.back().state == FileState::kSame;
      }
      said += "; " + Summarize(reads);
      m_volume.Unmount(step);
    }
    const CheckerRun after = m_volume.Check(step, "-n", Purpose::kLook);
    said += "; then " + after.label + ": " + after.Verdict();
    step.said = step.cell = said;
    m_volume.End(std::move(step));
  }

  bool Readonly(StepObservation& step) {
    if (!m_volume.Mounted() || !m_volume.NowReadOnly()) return false;
    step.lines.push_back("the driver has made the volume read-only");
    return true;
  }

  void Repair() {
    StepObservation step = m_volume.Begin("repair");
    std::string said = RepairPasses(step);
    said += "; mount " + m_volume.Mount(step);
    if (m_volume.Mounted()) {
      std::vector<TreeFile> files = m_tree.Files();
      if (m_new_intact) files.push_back(m_new);
      std::vector<FileRead> reads;
      for (const TreeFile& file : files)
        for (const FileRead& read : m_volume.Read(step, {file}, HitBy(file) ? Expect::kHit : Expect::kUntouched))
          reads.push_back(read);
      said += "; " + Summarize(reads) + "; " + WriteAfterRepair(step);
    }
    step.said = step.cell = said;
    m_volume.End(std::move(step));
  }

  // fsck -y twice, then -n, the sectors each pass changed counted.
  std::string RepairPasses(StepObservation& step) {
    const SectorSnapshot before(m_volume.Device());
    const CheckerRun repair = m_volume.Check(step, "-y", Purpose::kRepair);
    const SectorSnapshot repaired(m_volume.Device());
    const size_t changed = repaired.ChangedSince(before).size();
    m_volume.Check(step, "-y", Purpose::kRepair);
    const size_t again = SectorSnapshot(m_volume.Device()).ChangedSince(repaired).size();
    step.second_repair_changed = again;
    const Ending& end = repair.run.end;
    std::string said = end.kind != Ending::Kind::kExited || end.code >= 4
                           ? "the repair failed (" + repair.label + " " + end.Describe() + ")"
                       : changed == 0 ? "nothing to repair"
                                      : "repaired " + Sectors(changed);
    if (again != 0) said += ", and a second pass changed " + Sectors(again);
    const CheckerRun check = m_volume.Check(step, "-n", Purpose::kMustBeClean);
    return said + (check.Clean() ? ", then clean" : ", then " + check.Verdict() + ": " + check.FirstLine());
  }

  // The repaired volume in use: a file written, read back after a remount,
  // and the checker's word on what the driver left.
  std::string WriteAfterRepair(StepObservation& step) {
    std::string said = "new2 " + m_volume.WriteSynced(step, m_new2);
    m_volume.Unmount(step);
    said += ", remount " + m_volume.Mount(step);
    if (m_volume.Mounted()) {
      said += ", " + Summarize(m_volume.Read(step, {m_new2}, Expect::kDurable));
      m_volume.Unmount(step);
    }
    const CheckerRun after = m_volume.Check(step, "-n", Purpose::kMustBeClean);
    return said + "; then " + after.label + ": " + after.Verdict();
  }

  bool HitBy(const TreeFile& file) const {
    for (const std::string& label : m_aim.hits)
      if (label == file.label) return true;
    return false;
  }

  Context& m_context;
  const Row& m_row;
  const KnownTree m_tree;
  const TreeFile m_new;
  const TreeFile m_new2;
  VolumeUnderTest m_volume;
  Aim m_aim;
  bool m_new_written = false;
  bool m_new_intact = false;  // read back as written after the write step's remount
};

}  // namespace

void RunDamageRow(Context& context, const Row& row, uint32_t seed, RowListener& listener) {
  DamageRow(context, row, seed, listener).Run();
}
