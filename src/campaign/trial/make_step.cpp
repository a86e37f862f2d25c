#include "campaign/trial/make_step.h"

#include <fmt/format.h>

#include "campaign/machine/sector_snapshot.h"
#include "campaign/machine/volume_copy.h"
#include "campaign/trial/field_fuzz.h"
#include "campaign/trial/volume_layout.h"

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

std::string Hits(const Aim& aim) {
  std::string hits;
  for (const std::string& label : aim.hits) hits += (hits.empty() ? "; hits " : ", ") + label;
  return hits;
}

}  // namespace

std::string MakeTreeVolume(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                       StepObservation& step) {
  const ProgramRun mkfs =
      RunProgram({"mkfs.exfat", "-c", std::to_string(row.cluster_bytes), volume.Device()}, kToolLimit);
  step.runs.push_back({Purpose::kSetUp, "mkfs.exfat", mkfs.end});
  if (!mkfs.end.Succeeded())
    return step.not_carried_out = "mkfs.exfat " + mkfs.end.Describe() + ": " + LastWord(mkfs.Lines());
  const std::string mount = volume.Mount(step);
  if (!volume.Mounted() || volume.MountedReadOnly())
    return step.not_carried_out = "the driver did not take the new volume: " + mount;
  const auto written = RunIsolated<bool>(kPopulateLimit, [&] {
    tree.Populate(context.mount_point);
    return true;
  });
  step.runs.push_back({Purpose::kSetUp, "writing the tree", written.end});
  volume.Unmount(step);
  if (!written.result)
    return step.not_carried_out =
               "writing the tree failed: " + (written.output.empty() ? written.end.Describe() : written.output);
  step.lines.push_back(fmt::format("tree: {} files in {} directories, written through the driver{}",
                                   tree.Files().size(), tree.DirectoryCount(),
                                   row.tree_base.empty() ? "" : " below " + row.tree_base + "/"));
  const CheckerRun baseline = volume.Check(step, "-n", Purpose::kBaseline);
  if (!baseline.Clean())
    return step.not_carried_out = "the checker did not find the fresh volume clean: " + baseline.Verdict();
  return "";
}

namespace {

// A copy of the damaged volume beside the image, for a look at it later.
void Keep(const Context& context, const Row& row, const VolumeUnderTest& volume, StepObservation& step) {
  const std::string path = KeptVolumePath(context.store.Path(), row);
  try {
    CopyVolume(volume.Device(), row.volume_bytes, path);
    step.lines.push_back("kept: the damaged volume as " + path);
  } catch (const std::exception& e) {
    step.lines.push_back(std::string("kept: nothing, the copy failed: ") + e.what());
  }
}

std::string Damage(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                   StepObservation& step, Aim& aim) {
  try {
    aim = row.aim(ReadLayout(volume.Device()), tree);
  } catch (const std::exception& e) {
    return step.not_carried_out = std::string("the volume's layout could not be read: ") + e.what();
  }
  if (aim.description.empty()) return step.skipped = aim.why_not;
  step.lines.push_back("damage: qvexfat-test -d " + volume.Device() + " -c " + aim.description);
  for (int draw = 1; draw <= kDraws; ++draw) {
    const SectorSnapshot before(volume.Device());
    const ProgramRun tool = RunProgram({context.tool, "-d", volume.Device(), "-c", aim.description}, kToolLimit);
    step.runs.push_back({Purpose::kSetUp, "qvexfat-test -d", tool.end});
    ToolSaid(tool.Lines(), step);
    if (!tool.end.Succeeded())
      return step.not_carried_out = "qvexfat-test " + tool.end.Describe() + ": " + LastWord(tool.Lines());
    const std::vector<uint64_t> changed = SectorSnapshot(volume.Device()).ChangedSince(before);
    if (!changed.empty()) {
      step.lines.push_back(ChangedLine(changed));
      if (context.keep_damaged) Keep(context, row, volume, step);
      step.said = step.cell =
          fmt::format("damaged {} {}{}", changed.size(), changed.size() == 1 ? "sector" : "sectors", Hits(aim));
      return "";
    }
    step.lines.push_back("changed: nothing (the damage left every byte as it was); drawn again");
  }
  return step.skipped = fmt::format("the damage changed no byte in {} draws", kDraws);
}

}  // namespace

std::string MakeDamagedVolume(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                              StepObservation& step, Aim& aim) {
  step.lines.push_back(VolumeLine(row.volume_bytes, row.cluster_bytes, volume.Device()));
  const std::string stop = MakeTreeVolume(context, row, tree, volume, step);
  return stop.empty() ? Damage(context, row, tree, volume, step, aim) : stop;
}

std::string MakeFuzzedVolume(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                             StepObservation& step, Aim& aim) {
  step.lines.push_back(VolumeLine(row.volume_bytes, row.cluster_bytes, volume.Device()));
  try {
    if (!context.golden->Made()) {
      if (const std::string stop = MakeTreeVolume(context, row, tree, volume, step); !stop.empty()) return stop;
      context.golden->Capture(volume.Device(), row.volume_bytes);
      step.lines.push_back("golden: the field rows' volume, restored before each of the next");
    } else {
      const uint64_t blocks = context.golden->Restore(volume.Device());
      step.lines.push_back(fmt::format("golden: restored, {} blocks of 64 KiB written", blocks));
    }
  } catch (const std::exception& e) {
    return step.not_carried_out = std::string("the field rows' volume could not be kept or restored: ") + e.what();
  }
  FuzzOutcome fuzz;
  const SectorSnapshot before(volume.Device());
  try {
    fuzz = ApplyFuzz(volume.Device(), ReadLayout(volume.Device()), tree, *row.fuzz, context.seed);
  } catch (const std::exception& e) {
    return step.not_carried_out = std::string("the field could not be changed: ") + e.what();
  }
  if (!fuzz.skipped.empty()) return step.skipped = fuzz.skipped;
  step.lines.insert(step.lines.end(), fuzz.lines.begin(), fuzz.lines.end());
  const std::vector<uint64_t> changed = SectorSnapshot(volume.Device()).ChangedSince(before);
  step.lines.push_back(ChangedLine(changed));
  if (changed.empty()) return step.not_carried_out = "the fuzz was written, and no sector changed";
  if (context.keep_damaged) Keep(context, row, volume, step);
  aim.hits = fuzz.hits;
  aim.explained_from = fuzz.explained_from;
  step.said = step.cell =
      fmt::format("fuzzed, {} {} changed{}", changed.size(), changed.size() == 1 ? "sector" : "sectors", Hits(aim));
  return "";
}
