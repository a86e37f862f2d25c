#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "exfat/entry_set.h"

class BootSector;
class DeviceHandle;
class Fat;

constexpr size_t kDirectoryEntrySize = 32;
using DirectoryEntry = std::span<const uint8_t, kDirectoryEntrySize>;

// Directories nested deeper than this are not descended into. A path of at
// most 32,767 UTF-16 units cannot reach this depth on a sound volume.
constexpr size_t kMaxDirectoryDepth = 16384;

// The walk state of one directory.
struct DirectoryScan {
  DeviceHandle* device = nullptr;
  BootSector* boot_sector = nullptr;
  Fat* fat = nullptr;
  EntrySet* parent = nullptr;  // the set of the directory being walked
  uint64_t cluster = 0;
  uint64_t sector_in_cluster = 0;
  uint64_t entry_index = 0;
  std::unique_ptr<EntrySet> current;  // the set being assembled
  std::unique_ptr<EntrySet> spare;    // a finished set, whose memory the next one takes
  uint32_t secondaries_left = 0;
};

// The root directory has no entry set of its own: this stands in for it. Its
// valid length of 0 wraps round, so the root ends only at an end-of-directory
// entry or at the end of its chain.
std::unique_ptr<EntrySet> MakeRootEntrySet(const BootSector& boot_sector);

// Told of each entry set the walk finds valid, with the sets of the
// directories it lies in, outermost first (none for the root's own).
using EntrySetVisitor =
    std::function<void(std::span<const EntrySet* const> directories, const EntrySet& set)>;

// Walks the whole tree from `root_set`: loads the allocation bitmap and the
// up-case table when their entries are met, checks every entry set, deletes
// bad ones on disk and descends into valid subdirectories.
void ScanRoot(DeviceHandle& device, BootSector& boot_sector, Fat& fat, EntrySet& root_set,
              const EntrySetVisitor& visit = {});

// Decodes one in-use entry into the scan's state. Returns the set it
// completes, if any. Throws "UpCase table checksum failed" or "Allocation
// bitmap failed to load" when those structures cannot be loaded.
std::unique_ptr<EntrySet> ProcessEntry(DirectoryScan& scan, DirectoryEntry entry);

// Checks a completed set; the first failing check prints its
// "Deleting %ls due to ..." line and yields false.
bool ValidateEntrySet(const EntrySet& set, Fat& fat);

// Marks every entry of `set` not in use (bit 7 of the type byte cleared) on
// disk, following the directory's chain across sectors and clusters. False
// when the chain ends (or a sector cannot be read) before the last entry.
bool DeleteEntrySet(const EntrySet& set, const DirectoryScan& scan, bool no_fat_chain, uint64_t remaining);
