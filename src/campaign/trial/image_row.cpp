#include "campaign/trial/image_row.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <optional>

#include <fmt/format.h>

#include "campaign/fields/field_table.h"
#include "campaign/machine/user_image.h"
#include "campaign/trial/image_walk.h"
#include "campaign/trial/read_back.h"
#include "campaign/trial/repair_step.h"
#include "campaign/trial/volume_under_test.h"
#include "exfat/little_endian.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr uint64_t kLoopUnit = 4096;  // a loop device's size is a multiple of its blocks

// Why the boot sector's VolumeLength reaches past the image's end, or "":
// the copy would end inside the volume, and what lies past it is not the
// image's.
std::string VolumeLengthPastEnd(const std::string& device, uint64_t image_bytes) {
  const UniqueFd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  uint8_t sector[512];
  if (!fd.IsOpen() || pread(fd.Get(), sector, sizeof sector, 0) != static_cast<ssize_t>(sizeof sector))
    throw ErrnoException(errno ? errno : EIO, device);
  const uint8_t shift = sector[FieldNamed("boot", "BytesPerSectorShift").offset];
  const uint64_t sectors = ReadLe64(&sector[FieldNamed("boot", "VolumeLength").offset]);
  if (shift < kMinSectorShift || shift > kMaxSectorShift || sectors > (UINT64_MAX >> shift)) return "";
  if ((sectors << shift) <= image_bytes) return "";
  return fmt::format("its VolumeLength is {} sectors of {} bytes, {} bytes, more than the image's {}", sectors,
                     uint64_t{1} << shift, sectors << shift, image_bytes);
}

class ImageRow {
 public:
  ImageRow(Context& context, uint32_t seed, RowListener& listener, const UserImage& image,
           uint64_t bytes, std::optional<std::map<std::string, std::string>> manifest)
      : m_context(context), m_image(image), m_bytes(bytes), m_manifest(std::move(manifest)),
        m_new(NewFile("new", seed)), m_new2(NewFile("new2", seed)),
        m_volume(context, listener, (bytes + kLoopUnit - 1) / kLoopUnit * kLoopUnit) {}

  void Run() {
    if (!Make())
      return m_volume.SkipSteps({"check", "mount", "read", "write", "repair"}, "not run: the volume was not made");
    Check();
    if (m_volume.MountStep()) {
      Read();
      Write();
    } else {
      m_volume.SkipSteps({"read", "write"}, "not mounted");
    }
    RepairStep(m_volume, [this](StepObservation& step) { return ReadRepaired(step); }, m_new2);
  }

 private:
  bool Make() {
    StepObservation step = m_volume.Begin("make");
    step.lines.push_back(fmt::format("image: {}, {}, {} bytes, on {}", m_image.Path(), m_image.Format(), m_bytes,
                                     m_volume.Device()));
    if (m_manifest) step.lines.push_back(fmt::format("manifest: {} files", m_manifest->size()));
    try {
      m_image.CopyTo(m_volume.Device(), m_context.store.IsImage());
      step.not_carried_out = VolumeLengthPastEnd(m_volume.Device(), m_bytes);
    } catch (const std::exception& e) {
      step.not_carried_out = std::string("the image could not be copied: ") + e.what();
    }
    if (step.not_carried_out.empty()) step.said = step.cell = "copied";
    const bool made = step.not_carried_out.empty();
    m_volume.End(std::move(step));
    return made;
  }

  void Check() {
    StepObservation step = m_volume.Begin("check");
    const CheckerRun run = m_volume.Check(step, "-n", Purpose::kLook);
    const std::string verdict = run.Verdict();
    step.said = verdict == "damage" ? "damage: " + run.FirstLine() : verdict;
    step.cell = verdict;
    m_volume.End(std::move(step));
  }

  // One walk of the mounted volume, its process's ending among the step's runs.
  Walk WalkOnce(StepObservation& step) {
    Walk walk = WalkVolume(m_context.mount_point, m_context.limits.mount);
    step.runs.push_back({Purpose::kWork, "reading the volume", walk.end});
    if (!walk.finished) step.lines.push_back("read: the reading process " + walk.end.Describe());
    return walk;
  }

  // Every file read twice: what a damaged volume shows may be refused or
  // short, but the same each time, and as the manifest has it where it
  // shows it.
  void Read() {
    StepObservation step = m_volume.Begin("read");
    const Walk first = WalkOnce(step);
    const Walk second = first.finished ? WalkOnce(step) : Walk{};
    std::string said = first.finished ? first.Summary() : "not read: " + first.end.Describe();
    if (first.finished && second.finished) {
      step.disagreements = Disagreements(first, second);
      for (const std::string& line : step.disagreements) step.lines.push_back("read twice: " + line);
      said += step.disagreements.empty() ? ", read twice alike" : ", the two reads disagree";
    }
    if (m_manifest && first.finished) said += "; manifest: " + AgainstManifestSaid(step, first, Expect::kAsWritten);
    step.said = step.cell = said;
    m_volume.End(std::move(step));
  }

  std::string AgainstManifestSaid(StepObservation& step, const Walk& walk, Expect expect) {
    const std::vector<FileRead> reads = AgainstManifest(walk, *m_manifest, expect);
    for (const FileRead& read : reads) {
      step.files.push_back(read);
      if (const std::string evidence = Evidence(read); !evidence.empty()) step.lines.push_back(evidence);
    }
    return reads.empty() ? "no files" : Summarize(reads);
  }

  void Write() {
    StepObservation step = m_volume.Begin("write");
    const std::string wrote = m_volume.WriteSynced(step, m_new);
    std::string said = wrote == "written" ? wrote : "write " + wrote;
    if (!m_volume.MountedReadOnly() && m_volume.NowReadOnly()) {
      step.lines.push_back("the driver has made the volume read-only");
      said += "; went read-only";
    }
    m_volume.Unmount(step);
    said += "; remount " + m_volume.Mount(step);
    if (m_volume.Mounted()) {
      if (wrote == "written") said += "; " + Summarize(m_volume.Read(step, {m_new}, Expect::kDurable));
      m_volume.Unmount(step);
    }
    const CheckerRun after = m_volume.Check(step, "-n", Purpose::kLook);
    said += "; then " + after.label + ": " + after.Verdict();
    step.said = step.cell = said;
    m_volume.End(std::move(step));
  }

  // After the repair every file must read, and the manifest tells which
  // are as they were.
  std::string ReadRepaired(StepObservation& step) {
    const Walk walk = WalkOnce(step);
    if (!walk.finished) return "not read: " + walk.end.Describe();
    for (FileRead& unreadable : Unreadable(walk)) step.files.push_back(std::move(unreadable));
    std::string said = walk.Summary();
    if (m_manifest) said += "; manifest: " + AgainstManifestSaid(step, walk, Expect::kHit);
    return said;
  }

  Context& m_context;
  const UserImage& m_image;
  const uint64_t m_bytes;
  const std::optional<std::map<std::string, std::string>> m_manifest;
  const TreeFile m_new;
  const TreeFile m_new2;
  VolumeUnderTest m_volume;
};

// A make step that stops the row before any volume is set up.
void Refuse(RowListener& listener, const Row& row, const std::string& image_line, const std::string& why) {
  bool first = true;
  for (const std::string& name : StepNames(row)) {
    listener.StepBegins(name);
    StepObservation step;
    step.name = name;
    if (first) {
      step.lines.push_back(image_line);
      step.not_carried_out = why;
    } else {
      step.skipped = "not run: the volume was not made";
    }
    first = false;
    listener.StepEnded(std::move(step));
  }
}

}  // namespace

void RunImageRow(Context& context, const Row& row, uint32_t seed, RowListener& listener) {
  std::string why;
  std::optional<UserImage> image;
  uint64_t bytes = 0;
  std::optional<std::map<std::string, std::string>> manifest;
  try {
    image.emplace(row.image);
    bytes = image->Measure(context.store.Size());
    if (access((row.image + ".sha256").c_str(), F_OK) == 0) manifest = ReadManifest(row.image + ".sha256");
  } catch (const std::exception& e) {
    why = e.what();
  }
  const std::string line = image ? fmt::format("image: {}, {}", row.image, image->Format()) : "image: " + row.image;
  if (why.empty() && bytes > context.store.Size())
    why = fmt::format("the image is larger than the scratch area ({})", FormatSize(context.store.Size()));
  if (why.empty() && bytes == 0) why = "the image is empty";
  if (!why.empty()) return Refuse(listener, row, line, why);
  ImageRow(context, seed, listener, *image, bytes, std::move(manifest)).Run();
}
