#include "exfat/directory_scan.h"

#include <locale.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

namespace {

constexpr uint8_t kEndOfDirectory = 0;

// Names are printed with %ls, which converts through the thread's LC_CTYPE:
// in the default "C" locale any non-ASCII name would end its line early.
// For the scan's lifetime this thread uses a UTF-8 LC_CTYPE, where there is
// one.
class Utf8Messages {
 public:
  Utf8Messages() {
    for (const char* name : {"C.UTF-8", "C.utf8", "en_US.UTF-8"}) {
      m_locale = newlocale(LC_CTYPE_MASK, name, static_cast<locale_t>(0));
      if (m_locale != static_cast<locale_t>(0)) break;
    }
    if (m_locale != static_cast<locale_t>(0)) m_previous = uselocale(m_locale);
  }
  ~Utf8Messages() {
    if (m_locale == static_cast<locale_t>(0)) return;
    uselocale(m_previous);
    freelocale(m_locale);
  }
  Utf8Messages(const Utf8Messages&) = delete;
  Utf8Messages& operator=(const Utf8Messages&) = delete;

 private:
  locale_t m_locale = static_cast<locale_t>(0);
  locale_t m_previous = static_cast<locale_t>(0);
};

// What going through a directory's entries can change: the volume and the
// model (counted by Fat::Changes) and the set being assembled.
struct ScanState {
  uint64_t changes = 0;
  uint32_t secondaries_left = 0;
  std::string current;  // the fields of the set being assembled, if any
  std::string fat_cache;  // where an unreadable FAT sector leads
  bool operator==(const ScanState&) const = default;
};

ScanState StateOf(const Fat& fat, const DirectoryScan& scan) {
  ScanState state{fat.Changes(), scan.secondaries_left, {}, fat.FatCacheKey()};
  if (const EntrySet* set = scan.current.get()) {
    state.current.assign(reinterpret_cast<const char*>(set->raw_name.data()), set->raw_name.size() * 2);
    for (uint64_t v : {uint64_t{set->name_chars_left}, uint64_t{set->computed_checksum},
                       uint64_t{set->stored_checksum}, uint64_t{set->stored_name_hash}, set->first_cluster,
                       set->data_length, set->valid_data_length, set->cluster, set->sector_in_cluster,
                       set->entry_index})
      state.current.append(reinterpret_cast<const char*>(&v), sizeof v);
  }
  return state;
}

// Where a directory's walk enters a cluster, and in what state. Met twice,
// the walk has come round to where it was and would go round the same way
// again.
struct WalkPoint {
  uint64_t cluster;
  ScanState state;
  std::string sector;  // the buffer, which an unreadable sector keeps
  bool operator==(const WalkPoint&) const = default;
};

struct WalkPointHash {
  size_t operator()(const WalkPoint& p) const {
    return std::hash<std::string>()(p.state.current + p.sector) ^
           std::hash<uint64_t>()(p.cluster * 31 + p.state.changes);
  }
};

// A walk that has come round again goes on only while its directory's
// valid length would end it within this many more entries; past that it
// would only repeat itself for as long as the length lasts (the root's
// never runs out).
constexpr uint64_t kEntriesToRepeat = 1 << 20;

// One directory on the walk's stack. The walk keeps its own stack rather
// than recursing, so a deeply nested tree cannot exhaust the call stack.
struct Level {
  std::unique_ptr<EntrySet> directory;   // owns the parent set of a subdirectory
  std::unique_ptr<DirectoryScan> owned;  // the scan of a subdirectory
  DirectoryScan* scan = nullptr;
  std::vector<uint8_t> sector;  // kept from sector to sector, as the walk reads them
  bool sector_loaded = false;
  bool returning_from_subdirectory = false;
  std::unordered_map<WalkPoint, uint64_t, WalkPointHash> points;  // and the entries gone through by then
  uint64_t entries = 0;
  bool repeating = false;  // come round, and left to run out its length
  bool sector_read = false;     // whether the sector in the buffer was read
  ScanState before_sector{};  // the state before its entries were gone through
};

class TreeWalk {
 public:
  TreeWalk(DirectoryScan& start, const EntrySetVisitor& visit)
      : m_visit(visit),
        m_boot(*start.boot_sector),
        m_fat(*start.fat),
        m_entries_per_sector(m_boot.BytesPerSector() / kDirectoryEntrySize),
        m_entries_in_buffer(std::min<uint64_t>(m_entries_per_sector, Fat::kSectorBytes / kDirectoryEntrySize)) {
    Push(nullptr, start);
  }

  void Run() {
    while (!m_levels.empty()) {
      if (!Step(m_levels.back())) m_levels.pop_back();
    }
  }

 private:
  void Push(std::unique_ptr<EntrySet> directory, DirectoryScan& scan) {
    Level level;
    level.directory = std::move(directory);
    level.scan = &scan;
    level.sector.resize(Fat::kSectorBytes);
    m_levels.push_back(std::move(level));
    m_fat.Prefetch(scan.cluster, scan.parent->no_fat_chain, scan.parent->valid_data_length);
    EnterCluster(m_levels.back());  // the first point of a walk is always new
  }

  void PushSubdirectory(const DirectoryScan& parent_scan, std::unique_ptr<EntrySet> set) {
    auto scan = std::make_unique<DirectoryScan>();
    scan->device = parent_scan.device;
    scan->boot_sector = parent_scan.boot_sector;
    scan->fat = parent_scan.fat;
    scan->parent = set.get();
    scan->cluster = set->first_cluster;
    DirectoryScan& child = *scan;
    Push(std::move(set), child);
    m_levels.back().owned = std::move(scan);
  }

  // Handles the entry under `level`'s position. False when the directory
  // is finished.
  bool Step(Level& level) {
    DirectoryScan& scan = *level.scan;
    if (level.returning_from_subdirectory) {
      level.returning_from_subdirectory = false;
      return FinishEntry(level);
    }
    if (scan.entry_index >= m_entries_per_sector) return NextSector(level);
    if (!level.sector_loaded) {
      // A sector that cannot be read leaves the buffer as it was, and the
      // walk goes through that again.
      const uint64_t rest_of_cluster = m_boot.SectorsPerCluster() - 1 - scan.sector_in_cluster;
      level.sector_read = scan.device->ReadSectors(
          1, m_boot.ClusterToSector(scan.cluster) + scan.sector_in_cluster, level.sector, rest_of_cluster);
      level.sector_loaded = true;
      // Only a sector that was not read can be passed over with the rest
      // of its cluster, and only if going through it changed nothing.
      if (!level.sector_read) level.before_sector = StateOf(m_fat, scan);
    }
    if (scan.entry_index >= m_entries_in_buffer) return false;
    const DirectoryEntry entry(level.sector.data() + scan.entry_index * kDirectoryEntrySize, kDirectoryEntrySize);
    if (entry[0] == kEndOfDirectory) return false;
    if (std::unique_ptr<EntrySet> set = ProcessEntry(scan, entry)) {
      const bool valid = ValidateEntrySet(*set, m_fat);
      if (!valid) {
        DeleteEntrySet(*set, scan, scan.parent->no_fat_chain, scan.parent->valid_data_length);
      } else if (m_visit) {
        Visit(*set);
      }
      if (valid && (set->file_attributes & kDirectoryAttribute) != 0) {
        // The root's level does not count: subdirectories down to depth
        // kMaxDirectoryDepth are walked.
        if (m_levels.size() <= kMaxDirectoryDepth) {
          // The rest of this entry's step runs when the subdirectory is done.
          level.returning_from_subdirectory = true;
          PushSubdirectory(scan, std::move(set));  // invalidates `level`
          return true;
        }
        LogMessage("Not scanning %ls: directories nested deeper than %zu\n", DisplayName(set->raw_name).c_str(),
                   kMaxDirectoryDepth);
      }
      scan.spare = std::move(set);
    }
    return FinishEntry(level);
  }

  void Visit(const EntrySet& set) const {
    std::vector<const EntrySet*> directories;
    for (const Level& level : m_levels)
      if (level.directory) directories.push_back(level.directory.get());
    m_visit(directories, set);
  }

  // Moves past the current entry; the directory ends when its valid length
  // is used up.
  static bool FinishEntry(Level& level) {
    DirectoryScan& scan = *level.scan;
    level.entries += 1;
    scan.entry_index += 1;
    const uint64_t before = scan.parent->valid_data_length;
    scan.parent->valid_data_length -= kDirectoryEntrySize;
    return before != kDirectoryEntrySize;
  }

  bool NextSector(Level& level) {
    DirectoryScan& scan = *level.scan;
    scan.entry_index = 0;
    level.sector_loaded = false;
    // Sectors too small to hold an entry have nothing to visit: the rest of
    // the cluster is passed over at once rather than sector by sector (up
    // to 2^31 of them).
    if (m_entries_per_sector == 0) scan.sector_in_cluster = m_boot.SectorsPerCluster() - 1;
    if (!SkipUnreadableRest(level)) return false;
    if (++scan.sector_in_cluster < m_boot.SectorsPerCluster()) return true;
    scan.sector_in_cluster = 0;
    scan.cluster = m_fat.NextCluster(scan.cluster, scan.parent->no_fat_chain, scan.parent->valid_data_length);
    if (scan.cluster == Fat::kEndOfChain) return false;
    return EnterCluster(level);
  }

  // A sector that could not be read, gone through without changing
  // anything, is followed by more of the same when the rest of the cluster
  // lies past the end of the device: each would read nothing and go
  // through the same buffer to the same effect. They are passed over at
  // once, their entries counted off the directory's valid length. False
  // when that length ends the directory among them.
  bool SkipUnreadableRest(Level& level) {
    DirectoryScan& scan = *level.scan;
    const uint64_t rest = m_boot.SectorsPerCluster() - 1 - scan.sector_in_cluster;
    if (level.sector_read || rest == 0 || m_entries_per_sector == 0) return true;
    const ScanState now = StateOf(m_fat, scan);
    const uint64_t next = m_boot.ClusterToSector(scan.cluster) + scan.sector_in_cluster + 1;
    const uint64_t device_sectors = static_cast<uint64_t>(scan.device->SectorCount());
    if (!(now == level.before_sector) || next < device_sectors || next + rest < next) return true;
    const uint64_t entries = rest * m_entries_per_sector;
    const uint64_t length = scan.parent->valid_data_length;
    if (length % kDirectoryEntrySize == 0 && length != 0 && length / kDirectoryEntrySize <= entries) return false;
    scan.parent->valid_data_length -= entries * kDirectoryEntrySize;
    scan.sector_in_cluster += rest;
    return true;
  }

  // Notes where the walk enters a cluster. False when it has been here
  // before in the same state (it would go round the same way again) and
  // its valid length would not end it within kEntriesToRepeat entries.
  bool EnterCluster(Level& level) {
    if (level.repeating) return true;
    const DirectoryScan& scan = *level.scan;
    WalkPoint point{scan.cluster, StateOf(m_fat, scan),
                    std::string(reinterpret_cast<const char*>(level.sector.data()), level.sector.size())};
    const auto [seen, first_time] = level.points.try_emplace(std::move(point), level.entries);
    if (first_time) return true;
    const uint64_t length = scan.parent->valid_data_length;
    const bool ends = length % kDirectoryEntrySize == 0 && length != 0 && level.entries != seen->second;
    if (!ends || length / kDirectoryEntrySize > kEntriesToRepeat) return false;
    level.repeating = true;
    return true;
  }

  const EntrySetVisitor& m_visit;
  const BootSector& m_boot;
  Fat& m_fat;
  const uint64_t m_entries_per_sector;
  // Entries of a sector past the first 512 bytes are never read: zeros,
  // the end of the directory.
  const uint64_t m_entries_in_buffer;
  std::vector<Level> m_levels;
};

}  // namespace

std::unique_ptr<EntrySet> MakeRootEntrySet(const BootSector& boot_sector) {
  auto root = std::make_unique<EntrySet>();
  root->first_cluster = boot_sector.RootDirectoryStart();
  return root;
}

void ScanRoot(DeviceHandle& device, BootSector& boot_sector, Fat& fat, EntrySet& root_set,
              const EntrySetVisitor& visit) {
  DirectoryScan scan;
  scan.device = &device;
  scan.boot_sector = &boot_sector;
  scan.fat = &fat;
  scan.parent = &root_set;
  scan.cluster = root_set.first_cluster;
  if (scan.cluster == 0) return;
  const Utf8Messages utf8;
  TreeWalk(scan, visit).Run();
}
