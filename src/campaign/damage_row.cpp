#include "campaign/damage_row.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "campaign/checker.h"
#include "campaign/known_tree.h"
#include "campaign/read_back.h"
#include "campaign/sector_snapshot.h"
#include "campaign/volume_layout.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

using std::chrono::seconds;

constexpr seconds kProgramLimit{600};
constexpr seconds kPopulateLimit{600};
constexpr seconds kFileLimit{300};
constexpr size_t kSectorsListed = 8;

std::string ErrorName(int error) { return strerrorname_np(error) ? strerrorname_np(error) : std::to_string(error); }

// A volume of the known tree, damaged as the row says, or why there is none.
struct DamagedVolume {
  std::unique_ptr<LoopDevice> loop;
  std::vector<std::string> lines;  // how it was made and damaged
  std::string error;               // it could not be made
  std::string skip;                // the damage has nothing to hit on it
};

// The tool's lines past its announcement and the geometry it prints.
std::vector<std::string> ToolSaid(const std::vector<std::string>& lines) {
  std::vector<std::string> said;
  for (const std::string& line : lines)
    if (line.rfind("Device ", 0) != 0 && line.rfind("BootSector info", 0) != 0 && line.rfind('\t', 0) != 0)
      said.push_back("qvexfat-test: " + line);
  return said;
}

std::string ChangedLine(const std::vector<uint64_t>& sectors) {
  if (sectors.empty()) return "changed: nothing (the damage left every byte as it was)";
  std::string line = "changed: " + std::to_string(sectors.size()) + (sectors.size() == 1 ? " sector:" : " sectors:");
  for (size_t i = 0; i < sectors.size() && i < kSectorsListed; ++i) line += " " + std::to_string(sectors[i]);
  return line + (sectors.size() > kSectorsListed ? " ..." : "");
}

// Not ok for bytes read back other than those written; TIMEOUT when a
// file could not be read in time.
void Judge(StepResult& step, const std::vector<FileVerdict>& verdicts) {
  for (const FileVerdict& verdict : verdicts) {
    if (verdict.hazard) step.ok = false;
    if (verdict.timed_out) step.Fail("TIMEOUT", step.said);
  }
}

class DamageRow {
 public:
  DamageRow(Context& context, const Row& row) : m_context(context), m_row(row), m_tree(row.tree_base) {}

  RowResult Run() {
    RowResult result{m_row.name, true, {}, {}, {}, {}, {}};
    DamagedVolume volume = Make("make");
    result.lines = std::move(volume.lines);
    result.kernel = Kernel();
    result.error = volume.error;
    result.skip = volume.skip;
    if (!volume.loop) return result;
    result.steps.push_back(Check(*volume.loop));
    MountAttempt mount;
    result.steps.push_back(MountStep(*volume.loop, mount));
    result.steps.push_back(Read(mount));
    result.steps.push_back(Write(*volume.loop, mount));
    volume.loop.reset();  // the damaged volume has served
    result.steps.push_back(Repair());
    return result;
  }

 private:
  const std::string& Directory() const { return m_context.mount_point; }

  std::vector<std::string> Kernel() { return m_context.kernel_log.Take(m_devices); }

  StepResult Begin(const std::string& name) const {
    m_context.progress.Step(name);
    StepResult step;
    step.name = name;
    return step;
  }

  // The read and write steps need the volume the mount step took.
  static StepResult NotMounted(StepResult step) {
    step.directive = "SKIP";
    step.said = "not mounted";
    return step;
  }

  DamagedVolume Make(const std::string& step) {
    m_context.progress.Step(step);
    DamagedVolume volume;
    std::unique_ptr<LoopDevice> loop = m_context.store.FreshVolume(m_row.volume_bytes);
    m_devices.push_back(loop->Name());
    volume.lines.push_back(VolumeLine(m_row.volume_bytes, m_row.cluster_bytes, loop->Path()));
    volume.error = WriteTree(*loop);
    if (!volume.error.empty()) return volume;
    volume.lines.push_back("tree: " + std::to_string(m_tree.Files().size()) + " files in " +
                           std::to_string(m_tree.DirectoryCount()) + " directories, written through the driver" +
                           (m_row.tree_base.empty() ? "" : " below " + m_row.tree_base + "/"));
    const CheckerRun baseline = RunChecker(m_context.checker, "-n", loop->Path());
    if (!baseline.Clean()) {
      volume.error = "the checker found the volume damaged before the damage: " + baseline.FirstLine();
      return volume;
    }
    Aim aim;
    try {
      aim = m_row.aim(ReadLayout(loop->Path()), m_tree);
    } catch (const std::exception& e) {
      volume.error = std::string("the volume's layout could not be read: ") + e.what();
      return volume;
    }
    if (aim.description.empty()) {
      volume.skip = aim.why_not;
      return volume;
    }
    const SectorSnapshot before(loop->Path());
    const ChildOutcome tool = RunProgram({m_context.tool, "-d", loop->Path(), "-c", aim.description}, kProgramLimit);
    volume.lines.push_back("damage: qvexfat-test -d " + loop->Path() + " -c " + aim.description);
    for (const std::string& line : ToolSaid(tool.Lines())) volume.lines.push_back(line);
    if (!tool.Succeeded()) {
      volume.error = "qvexfat-test " + tool.Describe() + ": " + LastWord(tool.Lines());
      return volume;
    }
    volume.lines.push_back(ChangedLine(SectorSnapshot(loop->Path()).ChangedSince(before)));
    volume.loop = std::move(loop);
    return volume;
  }

  // mkfs.exfat, then the tree through the driver; what went wrong, if anything.
  std::string WriteTree(const LoopDevice& loop) {
    const ChildOutcome mkfs = RunProgram(
        {"mkfs.exfat", "-c", std::to_string(m_row.cluster_bytes), loop.Path()}, kProgramLimit);
    if (!mkfs.Succeeded()) return "mkfs.exfat " + mkfs.Describe() + ": " + LastWord(mkfs.Lines());
    MountAttempt mount = Mount(m_context.driver, loop.Path(), Directory());
    if (!mount.volume || mount.read_only) return "the driver did not take the new volume: " + mount.Describe();
    const ChildOutcome written = RunIsolated(kPopulateLimit, [this] {
      m_tree.Populate(Directory());
      return std::string();
    });
    if (!written.Succeeded())
      return "writing the tree failed: " + (written.output.empty() ? written.Describe() : written.output);
    const std::string trouble = mount.volume->Unmount();
    return trouble.empty() ? "" : "after writing the tree: " + trouble;
  }

  StepResult Check(const LoopDevice& loop) {
    StepResult step = Begin("check");
    const CheckerRun run = RunChecker(m_context.checker, "-n", loop.Path());
    step.lines = run.Transcript();
    if (run.Clean()) {
      step.said = "missed: " + run.FirstLine();
      step.cell = "no";
    } else if (run.Ran()) {
      step.said = "caught: " + run.FirstLine();
      step.cell = "yes";
    } else {
      step.said = "the checker did not run to its end: " + run.outcome.Describe();
      step.cell = "failed to run";
      if (run.outcome.timed_out) step.Fail("TIMEOUT", step.said);
    }
    step.TakeKernel(Kernel());
    return step;
  }

  StepResult MountStep(const LoopDevice& loop, MountAttempt& mount) {
    StepResult step = Begin("mount");
    mount = Mount(m_context.driver, loop.Path(), Directory());
    step.lines.insert(step.lines.end(), mount.driver_lines.begin(), mount.driver_lines.end());
    step.said = step.cell = mount.Describe();
    if (mount.timed_out) step.Fail("TIMEOUT", "the mount did not return");
    step.TakeKernel(Kernel());
    return step;
  }

  std::vector<FileVerdict> ReadAll(const std::vector<TreeFile>& files,
                                   FileVerdict (*judge)(const TreeFile&, const FileReading&),
                                   std::vector<std::string>& lines) {
    std::vector<FileVerdict> verdicts;
    for (const TreeFile& file : files) {
      verdicts.push_back(judge(file, ReadBack(Directory(), file, kFileLimit)));
      const FileVerdict& verdict = verdicts.back();
      if (verdict.state != "same" && verdict.state != "intact")
        lines.push_back("read: " + file.label + ": " + verdict.state + (verdict.detail.empty() ? "" : ", " + verdict.detail));
    }
    return verdicts;
  }

  StepResult Read(const MountAttempt& mount) {
    StepResult step = Begin("read");
    if (!mount.volume) return NotMounted(step);
    const std::vector<FileVerdict> verdicts = ReadAll(m_tree.Files(), JudgeRead, step.lines);
    step.said = step.cell = Summarize(m_tree.Files(), verdicts);
    Judge(step, verdicts);
    step.TakeKernel(Kernel());
    return step;
  }

  StepResult Write(const LoopDevice& loop, MountAttempt& mount) {
    StepResult step = Begin("write");
    if (!mount.volume) return NotMounted(step);
    const TreeFile added = NewFile();
    const ChildOutcome wrote = RunIsolated(kPopulateLimit, [this, &added]() -> std::string {
      const std::string path = Directory() + "/" + added.path;
      try {
        UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!fd.IsOpen()) throw ErrnoException(errno, "open");
        WriteContents(fd.Get(), added, 0, added.size);
        if (fsync(fd.Get()) != 0) throw ErrnoException(errno, "fsync");
        if (syncfs(fd.Get()) != 0) throw ErrnoException(errno, "syncfs");
      } catch (const ErrnoException& e) {
        return "failed (" + ErrorName(e.ErrorNumber()) + ")";
      }
      return "written";
    });
    const bool written = wrote.output == "written";
    std::string said = wrote.Succeeded() ? wrote.output : "failed (" + wrote.Describe() + ")";
    step.lines.push_back("write: " + added.path + ", " + std::to_string(added.size) + " bytes: " + said);
    if (!written) said = "write " + said;
    if (!mount.read_only && mount.volume->IsReadOnly()) {
      step.lines.push_back("the driver has made the volume read-only");
      said += "; went read-only";
    }
    const std::string trouble = mount.volume->Unmount();
    mount.volume.reset();
    if (!trouble.empty()) step.lines.push_back("unmount: " + trouble);

    MountAttempt again = Mount(m_context.driver, loop.Path(), Directory());
    step.lines.insert(step.lines.end(), again.driver_lines.begin(), again.driver_lines.end());
    said += "; remount " + again.Describe();
    std::vector<TreeFile> files = m_tree.Files();
    if (written) files.push_back(added);
    if (again.volume) {
      const std::vector<FileVerdict> verdicts = ReadAll(files, JudgeRead, step.lines);
      said += "; " + Summarize(files, verdicts);
      Judge(step, verdicts);
      const std::string unmounted = again.volume->Unmount();
      if (!unmounted.empty()) step.lines.push_back("unmount: " + unmounted);
    }
    // What the driver's use left on the volume.
    const CheckerRun after = RunChecker(m_context.checker, "-n", loop.Path());
    for (const std::string& line : after.Transcript()) step.lines.push_back(line);
    said += "; then " + after.label + ": " + (after.Clean() ? "clean" : after.Ran() ? "damage" : "did not run");
    if (again.timed_out) step.Fail("TIMEOUT", "the remount did not return");
    step.said = step.cell = said;
    step.TakeKernel(Kernel());
    return step;
  }

  StepResult Repair() {
    StepResult step;
    step.name = "repair";
    DamagedVolume volume = Make("repair");
    step.lines = std::move(volume.lines);
    if (!volume.loop) {
      step.Fail("ERROR", "the damaged volume could not be made again: " + volume.error + volume.skip);
      step.TakeKernel(Kernel());
      return step;
    }
    const CheckerRun repair = RunChecker(m_context.checker, "-y", volume.loop->Path());
    const CheckerRun check = RunChecker(m_context.checker, "-n", volume.loop->Path());
    for (const CheckerRun* run : {&repair, &check})
      for (const std::string& line : run->Transcript()) step.lines.push_back(line);
    std::string said;
    bool hazard = false;
    if (!repair.Ran() || repair.outcome.exit_code >= 4) {
      said = "the repair failed (" + repair.label + " " + repair.outcome.Describe() + ")";
      hazard = true;
    } else {
      said = repair.Clean() ? "nothing to repair" : "repaired";
    }
    if (check.Clean()) {
      said += ", then clean";
    } else {
      said += ", then still damaged: " + check.FirstLine();
      hazard = true;
    }
    step.cell = said;
    MountAttempt mount = Mount(m_context.driver, volume.loop->Path(), Directory());
    step.lines.insert(step.lines.end(), mount.driver_lines.begin(), mount.driver_lines.end());
    said += "; mount " + mount.Describe();
    if (mount.volume) {
      const std::vector<FileVerdict> verdicts = ReadAll(m_tree.Files(), JudgeRepaired, step.lines);
      said += "; " + Summarize(m_tree.Files(), verdicts);
      step.cell += "; " + Summarize(m_tree.Files(), verdicts);
      Judge(step, verdicts);
      const std::string unmounted = mount.volume->Unmount();
      if (!unmounted.empty()) step.lines.push_back("unmount: " + unmounted);
    } else {
      step.cell += "; mount " + mount.Describe();
    }
    step.said = said;
    if (hazard) step.ok = false;
    step.TakeKernel(Kernel());
    return step;
  }

  Context& m_context;
  const Row& m_row;
  const KnownTree m_tree;
  std::vector<std::string> m_devices;  // the row's loop devices, as the kernel log names them
};

}  // namespace

RowResult RunDamageRow(Context& context, const Row& row) { return DamageRow(context, row).Run(); }
