#include "campaign/trial/field_fuzz.h"

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "campaign/fields/fuzz_verbs.h"
#include "exfat/entry_set.h"
#include "exfat/little_endian.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr uint64_t kEntryBytes = 32;
constexpr uint64_t kBootChecksumSector = 11;
constexpr uint64_t kSecondaryCount = 1;  // in the File entry
constexpr uint64_t kSetChecksum = 2;
constexpr uint64_t kNameLength = 3;   // in the Stream Extension entry
constexpr uint64_t kNameHash = 4;
constexpr uint64_t kFileName = 2;  // in a File Name entry
constexpr uint64_t kUnitsPerNameEntry = 15;
constexpr uint64_t kFatEntryBytes = 4;

// The volume's bytes, read and written where the fuzz needs them.
class Volume {
 public:
  explicit Volume(const std::string& device) : m_device(device), m_fd(open(device.c_str(), O_RDWR | O_CLOEXEC)) {
    if (!m_fd.IsOpen()) throw ErrnoException(errno, device);
  }
  ~Volume() { fsync(m_fd.Get()); }

  std::vector<uint8_t> Read(uint64_t at, uint64_t count) const {
    std::vector<uint8_t> bytes(count);
    if (pread(m_fd.Get(), bytes.data(), count, static_cast<off_t>(at)) != static_cast<ssize_t>(count))
      throw ErrnoException(errno ? errno : EIO, m_device);
    return bytes;
  }
  void Write(uint64_t at, const std::vector<uint8_t>& bytes) {
    if (pwrite(m_fd.Get(), bytes.data(), bytes.size(), static_cast<off_t>(at)) != static_cast<ssize_t>(bytes.size()))
      throw ErrnoException(errno ? errno : EIO, m_device);
  }

 private:
  std::string m_device;
  UniqueFd m_fd;
};

std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  for (const uint8_t byte : bytes) text += fmt::format("{}{:02x}", text.empty() ? "" : " ", byte);
  return text;
}

uint64_t LeValue(const std::vector<uint8_t>& bytes) {
  uint64_t value = 0;
  for (size_t i = bytes.size(); i-- > 0;) value = value << 8 | bytes[i];
  return value;
}

std::vector<uint8_t> Le(uint64_t value, size_t width) {
  std::vector<uint8_t> bytes(width);
  for (size_t i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
  return bytes;
}

// Where the fuzz lands: the field's first byte, the entry set it is part
// of (if any), what `self` and `crosslink` name, and the files it reaches.
struct Target {
  uint64_t at = 0;
  const FilePlacement* set = nullptr;
  ClusterTargets clusters;
  std::vector<std::string> hits;
  std::string missing;  // why the instance is not there
};

// The tree's file or directory an instance names, by its path.
std::string PathOf(const KnownTree& tree, const std::string& label) {
  for (const TreeFile& file : tree.Files())
    if (file.label == label) return file.path;
  return label;  // a directory of the tree: "nested"
}

// The files a change to `path`'s entries reaches: the file, or everything
// below a directory.
std::vector<std::string> FilesAt(const KnownTree& tree, const std::string& path) {
  std::vector<std::string> labels;
  for (const TreeFile& file : tree.Files())
    if (file.path == path || file.path.rfind(path + "/", 0) == 0) labels.push_back(file.label);
  return labels;
}

// Another file of the tree for a crosslink to point at, drawn by the seed
// (file2 with the seed 0), never the instance itself.
std::string CrosslinkTarget(const KnownTree& tree, const std::string& instance, uint32_t seed) {
  std::vector<std::string> others;
  for (const TreeFile& file : tree.Files())
    if (file.label != instance) others.push_back(file.label);
  std::rotate(others.begin(), std::find(others.begin(), others.end(), instance == "file2" ? "file1" : "file2"),
              others.end());
  return others[seed % others.size()];
}

Target Locate(const VolumeLayout& layout, const KnownTree& tree, const FieldFuzz& fuzz, uint32_t seed) {
  const Field& field = *fuzz.field;
  Target target;
  const std::string label = field.place == Place::kLastNameEntry ? fuzz.instance.substr(0, fuzz.instance.rfind('-'))
                                                                 : fuzz.instance;
  const std::string other = CrosslinkTarget(tree, label, seed);
  if (const auto found = layout.files.find(PathOf(tree, other)); found != layout.files.end()) {
    target.clusters.crosslink = found->second.first_cluster;
    if (fuzz.verb == Verb::kCrosslink) target.hits.push_back(other);
  }
  const FilePlacement* file = nullptr;
  if (!label.empty() && label != "0" && label != "1") {
    const auto found = layout.files.find(PathOf(tree, label));
    if (found == layout.files.end()) {
      target.missing = label + " is not on the volume";
      return target;
    }
    file = &found->second;
    // The file's entries or chain: what it reads may follow, but not from a timestamp.
    if (field.kind != Field::Kind::kUnvalidated)
      for (const std::string& hit : FilesAt(tree, found->first)) target.hits.push_back(hit);
  }
  if (field.moves_data)
    for (const TreeFile& each : tree.Files()) target.hits.push_back(each.label);
  const uint64_t sector = layout.bytes_per_sector;
  switch (field.place) {
    case Place::kBootSector: target.at = field.offset; break;
    case Place::kBootSignatures: target.at = sector + sector - 4; break;
    case Place::kBootChecksum: target.at = kBootChecksumSector * sector; break;
    case Place::kFatEntry: {
      const uint64_t entry = file ? file->first_cluster : std::stoull(label);
      target.at = layout.fat_offset + entry * kFatEntryBytes;
      target.clusters.self = entry;
      break;
    }
    case Place::kBitmapEntry:
    case Place::kUpcaseEntry:
    case Place::kLabelEntry: {
      const uint64_t entry = field.place == Place::kBitmapEntry   ? layout.bitmap.entries.at(0)
                             : field.place == Place::kUpcaseEntry ? layout.upcase.entries.at(0)
                                                                  : layout.label_entry;
      if (entry == 0) target.missing = "the root has no such entry";
      target.at = entry + field.offset;
      target.clusters.self = layout.root_cluster;
      break;
    }
    case Place::kFileEntry:
    case Place::kStreamEntry:
    case Place::kNameEntry:
    case Place::kLastNameEntry: {
      const size_t index = field.place == Place::kFileEntry     ? 0
                           : field.place == Place::kStreamEntry ? 1
                           : field.place == Place::kNameEntry   ? 2
                                                                : file->entries.size() - 1;
      if (index >= file->entries.size()) {
        target.missing = label + "'s entry set is shorter than the directory walk found";
        break;
      }
      target.at = file->entries[index] + field.offset;
      target.set = file;
      target.clusters.self = file->directory_cluster;
      break;
    }
  }
  return target;
}

// The boot sector's sector size as it says now: a BytesPerSectorShift
// changed to another size is checksummed as a driver writing it would,
// over that size's eleven sectors; one that names no size, over the old.
uint64_t SectorBytesNow(Volume& volume, uint64_t old_bytes) {
  const uint8_t shift = volume.Read(FieldNamed("boot", "BytesPerSectorShift").offset, 1)[0];
  return shift >= kMinSectorShift && shift <= kMaxSectorShift ? uint64_t{1} << shift : old_bytes;
}

void FixBootChecksum(Volume& volume, uint64_t old_sector) {
  const uint64_t sector = SectorBytesNow(volume, old_sector);
  const uint32_t checksum = BootRegionChecksum(volume.Read(0, kBootChecksumSector * sector));
  std::vector<uint8_t> repeated;
  for (uint64_t i = 0; i < sector / 4; ++i) {
    const std::vector<uint8_t> word = Le(checksum, 4);
    repeated.insert(repeated.end(), word.begin(), word.end());
  }
  volume.Write(kBootChecksumSector * sector, repeated);
}

// The set's NameHash over its NameLength units, up-cased with the
// volume's own table.
void FixNameHash(Volume& volume, const FilePlacement& set, const VolumeLayout& layout) {
  const uint64_t length = volume.Read(set.entries[1] + kNameLength, 1)[0];
  uint16_t hash = 0;
  uint64_t done = 0;
  for (size_t entry = 2; entry < set.entries.size() && done < length; ++entry) {
    const std::vector<uint8_t> units = volume.Read(set.entries[entry] + kFileName, 2 * kUnitsPerNameEntry);
    for (uint64_t i = 0; i < kUnitsPerNameEntry && done < length; ++i, ++done)
      hash = AddToNameHash(hash, layout.upcase_table[ReadLe16(&units[2 * i])]);
  }
  volume.Write(set.entries[1] + kNameHash, Le(hash, 2));
}

// The entries the set has now, as its File entry counts them: a
// SecondaryCount made larger takes in the entries that follow, as far as
// the directory's cluster goes.
std::vector<uint64_t> EntriesCounted(Volume& volume, const FilePlacement& set, const VolumeLayout& layout) {
  const uint64_t count = uint64_t{volume.Read(set.entries[0] + kSecondaryCount, 1)[0]} + 1;
  std::vector<uint64_t> entries(set.entries.begin(), set.entries.begin() + std::min(count, set.entries.size()));
  while (entries.size() < count) {
    const uint64_t next = entries.back() + kEntryBytes;
    if ((next - layout.heap_offset) % layout.cluster_bytes == 0) break;
    entries.push_back(next);
  }
  return entries;
}

void FixSetChecksum(Volume& volume, const FilePlacement& set, const VolumeLayout& layout) {
  uint16_t checksum = 0;
  const std::vector<uint64_t> entries = EntriesCounted(volume, set, layout);
  for (size_t entry = 0; entry < entries.size(); ++entry) {
    const std::vector<uint8_t> bytes = volume.Read(entries[entry], kEntryBytes);
    checksum = AddEntryToChecksum(checksum, std::span<const uint8_t, 32>(bytes.data(), 32), entry == 0);
  }
  volume.Write(set.entries[0] + kSetChecksum, Le(checksum, 2));
}

}  // namespace

FuzzOutcome ApplyFuzz(const std::string& device, const VolumeLayout& layout, const KnownTree& tree,
                      const FieldFuzz& fuzz, uint32_t seed) {
  const Field& field = *fuzz.field;
  FuzzOutcome outcome;
  Target target = Locate(layout, tree, fuzz, seed);
  if (!target.missing.empty()) {
    outcome.skipped = target.missing;
    return outcome;
  }
  Volume volume(device);
  const std::vector<uint8_t> before = volume.Read(target.at, field.width);
  const std::vector<uint8_t> after = Fuzzed(before, fuzz.verb, field.mask, target.clusters);
  if (after == before) {
    outcome.skipped = fmt::format("{} leaves the {} bytes as they were ({})", VerbName(fuzz.verb), field.width,
                                  Hex(before));
    return outcome;
  }
  volume.Write(target.at, after);
  outcome.lines.push_back(fmt::format("fuzz: {}.{} at byte {} of the volume, {} bytes: {} -> {}", field.structure,
                                      field.name, target.at, field.width, Hex(before), Hex(after)));
  switch (field.cover) {
    case Cover::kNone: break;
    case Cover::kBootChecksum:
      FixBootChecksum(volume, layout.bytes_per_sector);
      outcome.lines.push_back("fixed: boot region checksum");
      break;
    case Cover::kNameHash:
      FixNameHash(volume, *target.set, layout);
      outcome.lines.push_back("fixed: NameHash");
      [[fallthrough]];
    case Cover::kSetChecksum:
      FixSetChecksum(volume, *target.set, layout);
      outcome.lines.push_back("fixed: SetChecksum");
      break;
  }
  outcome.hits = std::move(target.hits);
  if (field.kind == Field::Kind::kLength) outcome.explained_from = std::min(LeValue(before), LeValue(after));
  return outcome;
}
