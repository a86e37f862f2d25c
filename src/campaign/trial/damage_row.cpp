#include "campaign/trial/damage_row.h"

#include <algorithm>

#include "campaign/trial/make_step.h"
#include "campaign/trial/read_back.h"
#include "campaign/trial/repair_step.h"
#include "campaign/trial/volume_under_test.h"

namespace {

constexpr std::chrono::seconds kFieldStepLimit{30};

class DamageRow {
 public:
  DamageRow(Context& context, const Row& row, uint32_t seed, RowListener& listener)
      : m_context(context), m_row(row), m_tree(row.tree_base, seed),
        m_new(NewFile("new", seed)), m_new2(NewFile("new2", seed)), m_volume(context, listener, row.volume_bytes) {}

  void Run() {
    const std::string stop = Make();
    if (!stop.empty()) return m_volume.SkipSteps({"check", "mount", "read", "write", "repair"}, stop);
    Check();
    if (m_volume.MountStep()) {
      Read();
      Write();
    } else {
      m_volume.SkipSteps({"read", "write"}, "not mounted");
    }
    Repair();
  }

 private:
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

  void Read() {
    StepObservation step = m_volume.Begin("read");
    step.said = step.cell = Summarize(ReadTree(step));
    m_volume.End(std::move(step));
  }

  // The tree read back as written; on a field row, a file the changed
  // field reaches may read otherwise, as the field says.
  std::vector<FileRead> ReadTree(StepObservation& step) {
    if (!m_row.fuzz) return m_volume.Read(step, m_tree.Files(), Expect::kAsWritten);
    std::vector<FileRead> reads;
    for (const TreeFile& file : m_tree.Files())
      reads.push_back(
          m_volume.Read(step, {file}, HitBy(file) ? Expect::kExplained : Expect::kAsWritten, m_aim.explained_from)
              .front());
    return reads;
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
      std::vector<FileRead> reads = ReadTree(step);
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

  // The make step; what stops the row after it, or "".
  std::string Make() {
    StepObservation step = m_volume.Begin("make");
    const std::string stop = m_row.fuzz ? MakeFuzzedVolume(m_context, m_row, m_tree, m_volume, step, m_aim)
                                        : MakeDamagedVolume(m_context, m_row, m_tree, m_volume, step, m_aim);
    const bool skipped = !step.skipped.empty();
    m_volume.End(std::move(step));
    return stop.empty() || skipped ? stop : "not run: the volume was not made";
  }

  void Repair() {
    RepairStep(
        m_volume,
        [this](StepObservation& step) {
          std::vector<FileRead> reads;
          for (const TreeFile& file : m_tree.Files())
            reads.push_back(m_volume.Read(step, {file}, HitBy(file) ? Expect::kHit : Expect::kUntouched).front());
          if (m_new_intact)
            reads.push_back(m_volume.Read(step, {m_new}, HitBy(m_new) ? Expect::kHit : Expect::kUntouched).front());
          return Summarize(reads);
        },
        m_new2);
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
  if (!row.fuzz) return DamageRow(context, row, seed, listener).Run();
  // Hundreds of field rows: a checker or a driver stuck on one is stopped
  // soon, so that the run goes on to the next.
  Context field_context = context;
  for (std::chrono::seconds* limit : {&field_context.limits.checker, &field_context.limits.mount})
    *limit = std::min(*limit, kFieldStepLimit);
  DamageRow(field_context, row, seed, listener).Run();
}
