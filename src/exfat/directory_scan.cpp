#include "exfat/directory_scan.h"

#include <locale.h>

#include <algorithm>
#include <unordered_set>
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

// One directory on the walk's stack. The walk keeps its own stack rather
// than recursing, so a deeply nested tree cannot exhaust the call stack.
struct Level {
  std::unique_ptr<EntrySet> directory;   // owns the parent set of a subdirectory
  std::unique_ptr<DirectoryScan> owned;  // the scan of a subdirectory
  DirectoryScan* scan = nullptr;
  std::vector<uint8_t> sector;
  bool sector_loaded = false;
  bool returning_from_subdirectory = false;
  std::unordered_set<uint64_t> clusters_visited;
};

class TreeWalk {
 public:
  explicit TreeWalk(DirectoryScan& start)
      : m_boot(*start.boot_sector),
        m_fat(*start.fat),
        m_entries_per_sector(m_boot.BytesPerSector() / kDirectoryEntrySize),
        m_sector_bytes(std::max<size_t>(m_boot.BytesPerSector(), DeviceHandle::kDeviceModeSectorSize)) {
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
    level.sector.resize(m_sector_bytes);
    level.clusters_visited.insert(scan.cluster);
    m_levels.push_back(std::move(level));
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
      return FinishEntry(scan);
    }
    if (scan.entry_index >= m_entries_per_sector) return NextSector(level);
    if (!level.sector_loaded) {
      const uint64_t number = m_boot.ClusterToSector(scan.cluster) + scan.sector_in_cluster;
      // A directory sector that cannot be read ends the directory.
      if (!scan.device->ReadSectors(1, number, level.sector)) return false;
      level.sector_loaded = true;
    }
    const DirectoryEntry entry(level.sector.data() + scan.entry_index * kDirectoryEntrySize, kDirectoryEntrySize);
    if (entry[0] == kEndOfDirectory) return false;
    if (std::unique_ptr<EntrySet> set = ProcessEntry(scan, entry)) {
      if (!ValidateEntrySet(*set, m_fat)) {
        DeleteEntrySet(*set, scan, scan.parent->no_fat_chain, scan.parent->valid_data_length);
      } else if ((set->file_attributes & kDirectoryAttribute) != 0) {
        // The root's level does not count: subdirectories down to depth
        // kMaxDirectoryDepth are walked.
        if (m_levels.size() <= kMaxDirectoryDepth) {
          // The rest of this entry's step runs when the subdirectory is done.
          level.returning_from_subdirectory = true;
          PushSubdirectory(scan, std::move(set));  // invalidates `level`
          return true;
        }
        LogMessage("Not scanning %ls: directories nested deeper than %zu\n", set->name.c_str(),
                   kMaxDirectoryDepth);
      }
    }
    return FinishEntry(scan);
  }

  // Moves past the current entry; the directory ends when its valid length
  // is used up.
  static bool FinishEntry(DirectoryScan& scan) {
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
    if (++scan.sector_in_cluster < m_boot.SectorsPerCluster()) return true;
    scan.sector_in_cluster = 0;
    const uint64_t next = m_fat.NextCluster(scan.cluster, scan.parent->no_fat_chain, scan.parent->valid_data_length);
    if (next == Fat::kEndOfChain) return false;
    // A chain that leaves the heap, or comes back to a cluster it has
    // walked (a loop), ends the directory.
    if (!m_fat.InRange(next) || !level.clusters_visited.insert(next).second) return false;
    scan.cluster = next;
    return true;
  }

  const BootSector& m_boot;
  Fat& m_fat;
  const uint64_t m_entries_per_sector;
  const size_t m_sector_bytes;
  std::vector<Level> m_levels;
};

}  // namespace

std::unique_ptr<EntrySet> MakeRootEntrySet(const BootSector& boot_sector) {
  auto root = std::make_unique<EntrySet>();
  root->first_cluster = boot_sector.RootDirectoryStart();
  return root;
}

void ScanRoot(DeviceHandle& device, BootSector& boot_sector, Fat& fat, EntrySet& root_set) {
  DirectoryScan scan;
  scan.device = &device;
  scan.boot_sector = &boot_sector;
  scan.fat = &fat;
  scan.parent = &root_set;
  scan.cluster = root_set.first_cluster;
  ScanDirectory(scan);
}

void ScanDirectory(DirectoryScan& scan) {
  if (scan.cluster == 0) return;
  const Utf8Messages utf8;
  TreeWalk(scan).Run();
}
