#include "campaign/trial/rows.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "campaign/machine/user_image.h"
#include "campaign/power/recording.h"
#include "campaign/power/workload.h"

namespace {

constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t k4K = 4096;
// The damage rows' volumes: room for the tree many times over.
constexpr uint64_t kDamageVolume = 32 * kMiB;
// An image measured past this is taken to be larger than any scratch area.
constexpr uint64_t kLargestImage = uint64_t{1} << 44;

Aim Fixed(const char* kind) { return {kind, "", {}}; }

// A file of the tree as the volume holds it, when it holds it so.
const FilePlacement* Placed(const VolumeLayout& layout, const KnownTree& tree, const char* label) {
  const auto found = layout.files.find(tree.File(label).path);
  return found == layout.files.end() ? nullptr : &found->second;
}

Aim FatRootChain(const VolumeLayout& layout, const KnownTree&) {
  return {fmt::format("fat:start:{:x}:range:1:value:0", layout.root_cluster), "", {}};
}

// The first two clusters of a file written whole: the next file written
// gets them, and its bytes go over file2's.
Aim BitmapClearedUnderFile(const VolumeLayout& layout, const KnownTree& tree) {
  const FilePlacement* file2 = Placed(layout, tree, "file2");
  if (!file2 || file2->clusters < 2) return {"", "file2 does not hold two clusters", {}};
  return {fmt::format("bitmap:start:{:x}:range:2:value:0", file2->first_cluster), "", {"file2", "new"}};
}

// Byte 250 of the root directory: in the root's eighth entry, file2's
// Stream Extension when the tree is in the root.
Aim Root(const VolumeLayout& layout, bool in_use) {
  if (layout.root_eighth_entry_in_use != in_use)
    return {"", fmt::format("the root directory's eighth entry is {}in use", in_use ? "not " : ""), {}};
  return {"root", "", in_use ? std::vector<std::string>{"file2"} : std::vector<std::string>{}};
}

Aim RootEntryInUse(const VolumeLayout& layout, const KnownTree&) { return Root(layout, true); }
Aim RootEntryUnused(const VolumeLayout& layout, const KnownTree&) { return Root(layout, false); }

Aim BitmapSetOnFree(const VolumeLayout& layout, const KnownTree&) {
  if (layout.free_run == 0) return {"", "no 16 free clusters in a row in the heap's upper half", {}};
  return {fmt::format("bitmap:start:{:x}:range:a:value:1", layout.free_run), "", {}};
}

// From the bitmap's first cluster to the up-case table's last: the next
// file written may get them.
Aim BitmapClearedUnderMetadata(const VolumeLayout& layout, const KnownTree&) {
  const uint64_t first = std::min(layout.bitmap.first_cluster, layout.upcase.first_cluster);
  const uint64_t end = std::max(layout.bitmap.first_cluster + layout.bitmap.clusters,
                                layout.upcase.first_cluster + layout.upcase.clusters);
  if (first < 2 || end <= first) return {"", "no allocation bitmap or up-case table found", {}};
  return {fmt::format("bitmap:start:{:x}:range:{:x}:value:0", first, end - first), "", {"new"}};
}

// Bad-cluster marks over the FAT entries of a file that has no FAT chain.
Aim FatContiguousFile(const VolumeLayout& layout, const KnownTree& tree) {
  const FilePlacement* big = Placed(layout, tree, "big");
  if (!big || !big->no_fat_chain) return {"", "the driver gave big a FAT chain", {}};
  return {fmt::format("fat:start:{:x}:range:{:x}:value:ffffff7", big->first_cluster, big->clusters), "", {"big"}};
}

Row Damage(const char* name, Aim (*aim)(const VolumeLayout&, const KnownTree&), const char* base = "") {
  return {name, true, kDamageVolume, k4K, base, aim};
}

Row Volume(const char* name, uint64_t bytes, uint64_t cluster_bytes) {
  return {name, false, bytes, cluster_bytes, "", nullptr};
}

}  // namespace

const std::vector<Row>& AllRows() {
  static const std::vector<Row> rows = {
      Damage("fat-root-chain", FatRootChain),
      Damage("bitmap-cleared-under-file", BitmapClearedUnderFile),
      Damage("upcase", [](const VolumeLayout&, const KnownTree&) { return Fixed("upcase"); }),
      Damage("root-entry-in-use", RootEntryInUse),
      Damage("main-boot-region", [](const VolumeLayout&, const KnownTree&) { return Fixed("main"); }),
      Damage("bitmap-set-on-free", BitmapSetOnFree),
      Damage("bitmap-cleared-under-metadata", BitmapClearedUnderMetadata),
      Damage("fat-contiguous-file", FatContiguousFile),
      Damage("backup-boot-region", [](const VolumeLayout&, const KnownTree&) { return Fixed("backup"); }),
      // The tree in a directory of its own leaves the root's eighth entry free.
      Damage("root-entry-unused", RootEntryUnused, "tree"),
      // The sizes the tests need to pass on a sound driver, as small as that.
      Volume("truncate", 32 * kMiB, k4K),
      Volume("diskspace", 16 * kMiB, k4K),
      Volume("truncatebug31031", 32 * kMiB, k4K),
      Volume("rename", 16 * kMiB, k4K),
      Volume("filename", 16 * kMiB, k4K),
      Volume("directory", 16 * kMiB, k4K),
      Volume("cluster", 160 * kMiB, k4K),
      Volume("fragdisk", 384 * kMiB, 128 * 1024),
      Volume("filldir", 16 * kMiB, k4K),
  };
  return rows;
}

const std::vector<Row>& FieldRows() {
  static const std::vector<Row> rows = [] {
    std::vector<Row> all;
    for (const FieldFuzz& fuzz : AllFieldFuzzes()) all.push_back({RowName(fuzz), true, kDamageVolume, k4K, "", nullptr, &fuzz});
    return all;
  }();
  return rows;
}

const std::vector<Row>& PowerCutRows() {
  static const std::vector<Row> rows = [] {
    std::vector<Row> all;
    std::vector<std::string> points = Workload(KnownTree("", 0), 0).Marks();
    points.push_back(kTornRow);
    for (const std::string& point : points) {
      Row row{"power-cut." + point, false, kDamageVolume, k4K, "", nullptr};
      row.power_cut = point;
      row.log_bytes = kWriteLogBytes;
      all.push_back(row);
    }
    return all;
  }();
  return rows;
}

std::vector<Row> ImageRows(const std::string& directory, std::string& error) {
  std::vector<std::string> names;
  std::error_code listing;
  for (const auto& entry : std::filesystem::directory_iterator(directory, listing)) {
    const std::string name = entry.path().filename().string();
    std::error_code type;
    if (entry.is_regular_file(type) && name[0] != '.' && !name.ends_with(".sha256")) names.push_back(name);
  }
  if (listing) {
    error = "--images " + directory + ": " + listing.message();
    return {};
  }
  if (names.empty()) error = "--images " + directory + " holds no image files";
  std::sort(names.begin(), names.end());
  std::vector<Row> rows;
  for (const std::string& name : names) {
    std::string row_name = "image.";
    for (const char c : name) row_name += isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' ? c : '_';
    const std::string base = row_name;
    for (int n = 2; std::any_of(rows.begin(), rows.end(), [&](const Row& row) { return row.name == row_name; }); ++n)
      row_name = base + "-" + std::to_string(n);
    const std::string path = directory + "/" + name;
    uint64_t bytes = 0;
    try {
      bytes = (UserImage(path).Measure(kLargestImage) + k4K - 1) / k4K * k4K;
    } catch (const std::exception&) {  // the row tells why
    }
    rows.push_back({row_name, false, std::min(bytes, kLargestImage), k4K, "", nullptr, nullptr, path});
  }
  return rows;
}

std::vector<std::string> StepNames(const Row& row) {
  if (row.replayed) return {"make", "check", "mount", "repair"};
  if (row.power_cut == kTornRow) return {"replay", "check", "repair"};
  if (!row.power_cut.empty()) return {"make", "check", "mount", "read", "flushes", "repair"};
  if (row.damage || !row.image.empty()) return {"make", "check", "mount", "read", "write", "repair"};
  return {"make", "run", "check"};
}
