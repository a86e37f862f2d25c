// Decoding, checking and deleting directory entry sets.
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/directory_scan.h"
#include "exfat/fat.h"
#include "exfat/little_endian.h"
#include "platform/log_message.h"

namespace {

// Type byte: bit 7 in use, bit 6 secondary, bits 0 to 4 the type code.
constexpr uint8_t kInUse = 0x80;
constexpr uint8_t kSecondary = 0x40;
constexpr uint8_t kTypeCodeMask = 0x1F;

// Primary type codes.
constexpr uint8_t kAllocationBitmapCode = 1;
constexpr uint8_t kUpcaseTableCode = 2;
constexpr uint8_t kFileCode = 5;
// Secondary type codes.
constexpr uint8_t kStreamExtensionCode = 0;
constexpr uint8_t kFileNameCode = 1;

// Any primary entry.
constexpr size_t kSecondaryCount = 1;
// Allocation Bitmap and Up-case Table entries.
constexpr size_t kTableChecksum = 4;
constexpr size_t kFirstCluster = 20;
constexpr size_t kDataLength = 24;
// File entry.
constexpr size_t kSetChecksum = 2;
constexpr size_t kFileAttributes = 4;
constexpr size_t kCreateTimestamp = 8;
constexpr size_t kLastModifiedTimestamp = 12;
constexpr size_t kLastAccessedTimestamp = 16;
constexpr size_t kTimeExtras = 20;
// Stream Extension entry (FirstCluster and DataLength as above).
constexpr size_t kGeneralSecondaryFlags = 1;
constexpr size_t kNameLength = 3;
constexpr size_t kNameHash = 4;
constexpr size_t kValidDataLength = 8;
constexpr uint8_t kAllocationPossible = 0x01;
constexpr uint8_t kNoFatChain = 0x02;
// File Name entry.
constexpr size_t kFileName = 2;
constexpr uint32_t kCharsPerFileNameEntry = 15;

std::unique_ptr<EntrySet> StartFileSet(DirectoryScan& scan, DirectoryEntry e) {
  // A set takes the memory of one that is done with, its name's included:
  // most of a scan is sets coming and going.
  std::unique_ptr<EntrySet> set = scan.current ? std::move(scan.current) : std::move(scan.spare);
  if (!set) {
    set = std::make_unique<EntrySet>();
  } else {
    set->Reset();
  }
  set->stored_checksum = static_cast<uint16_t>(ReadLe16(&e[kSetChecksum]));
  set->file_attributes = static_cast<uint16_t>(ReadLe16(&e[kFileAttributes]));
  set->create_timestamp = static_cast<uint32_t>(ReadLe32(&e[kCreateTimestamp]));
  set->last_modified_timestamp = static_cast<uint32_t>(ReadLe32(&e[kLastModifiedTimestamp]));
  set->last_accessed_timestamp = static_cast<uint32_t>(ReadLe32(&e[kLastAccessedTimestamp]));
  std::copy_n(&e[kTimeExtras], set->time_extras.size(), set->time_extras.begin());
  set->cluster = scan.cluster;
  set->sector_in_cluster = scan.sector_in_cluster;
  set->entry_index = scan.entry_index;
  set->entry_count = static_cast<uint64_t>(e[kSecondaryCount]) + 1;
  set->computed_checksum = AddEntryToChecksum(0, e, true);
  return set;
}

void AddStreamExtension(EntrySet& set, DirectoryEntry e) {
  set.name_length = e[kNameLength];
  set.name_chars_left = set.name_length;
  set.stored_name_hash = static_cast<uint16_t>(ReadLe16(&e[kNameHash]));
  set.first_cluster = ReadLe32(&e[kFirstCluster]);
  set.data_length = ReadLe64(&e[kDataLength]);
  set.valid_data_length = ReadLe64(&e[kValidDataLength]);
  set.allocation_possible = (e[kGeneralSecondaryFlags] & kAllocationPossible) != 0;
  set.no_fat_chain = (e[kGeneralSecondaryFlags] & kNoFatChain) != 0;
  set.computed_name_hash = 0;
  set.computed_checksum = AddEntryToChecksum(set.computed_checksum, e, false);
}

void AddFileName(EntrySet& set, DirectoryEntry e) {
  const uint32_t count = std::min(set.name_chars_left, kCharsPerFileNameEntry);
  const size_t at = set.raw_name.size();
  set.raw_name.resize(at + count);
  for (uint32_t i = 0; i < count; ++i) set.raw_name[at + i] = static_cast<char16_t>(ReadLe16(&e[kFileName + 2 * i]));
  set.name_chars_left -= count;
  set.computed_checksum = AddEntryToChecksum(set.computed_checksum, e, false);
}

std::unique_ptr<EntrySet> ProcessSecondary(DirectoryScan& scan, DirectoryEntry e) {
  if (scan.secondaries_left == 0) return nullptr;
  switch (e[0] & kTypeCodeMask) {
    case kStreamExtensionCode:
      if (scan.current) AddStreamExtension(*scan.current, e);
      break;
    case kFileNameCode:
      if (scan.current) AddFileName(*scan.current, e);
      break;
    default:
      return nullptr;
  }
  if (--scan.secondaries_left != 0 || !scan.current) return nullptr;
  std::unique_ptr<EntrySet> set = std::move(scan.current);
  uint16_t hash = 0;
  for (char16_t unit : set->raw_name) hash = AddToNameHash(hash, scan.fat->UpcaseEntry(unit));
  set->computed_name_hash = hash;
  return set;
}

void ProcessPrimary(DirectoryScan& scan, DirectoryEntry e) {
  scan.secondaries_left = e[kSecondaryCount];
  switch (e[0] & kTypeCodeMask) {
    case kFileCode:
      scan.current = StartFileSet(scan, e);
      break;
    case kUpcaseTableCode: {
      const uint64_t first_cluster = ReadLe32(&e[kFirstCluster]);
      if (!scan.fat->LoadUpcaseTable(first_cluster, ReadLe64(&e[kDataLength]),
                                     static_cast<uint32_t>(ReadLe32(&e[kTableChecksum]))))
        throw std::runtime_error("UpCase table checksum failed");
      if (scan.fat->UpcaseTableCluster() != first_cluster) scan.fat->NoteChange();
      scan.fat->SetUpcaseTableCluster(first_cluster);
      break;
    }
    case kAllocationBitmapCode: {
      const uint64_t first_cluster = ReadLe32(&e[kFirstCluster]);
      const uint64_t length = ReadLe64(&e[kDataLength]);
      if (!scan.fat->LoadAllocationBitmap(first_cluster, length))
        throw std::runtime_error("Allocation bitmap failed to load");
      if (scan.boot_sector->BitmapStartCluster() != first_cluster || scan.boot_sector->BitmapLength() != length)
        scan.fat->NoteChange();
      scan.boot_sector->SetBitmapStartCluster(first_cluster);
      scan.boot_sector->SetBitmapLength(length);
      break;
    }
    default:
      break;
  }
}

}  // namespace

std::unique_ptr<EntrySet> ProcessEntry(DirectoryScan& scan, DirectoryEntry e) {
  if ((e[0] & kInUse) == 0) return nullptr;
  if ((e[0] & kSecondary) != 0) return ProcessSecondary(scan, e);
  ProcessPrimary(scan, e);
  return nullptr;
}

bool ValidateEntrySet(const EntrySet& set, Fat& fat) {
  // The name is decoded only for the line that is printed.
  const char* line = nullptr;
  if (!fat.IsClusterAllocated(set.first_cluster))
    line = "Deleting %ls due to invalid first cluster\n";
  else if (set.stored_name_hash != set.computed_name_hash)
    line = "Deleting %ls due to incorrect filename hash\n";
  else if (set.stored_checksum != set.computed_checksum)
    line = "Deleting %ls due to incorrect directory entry checksum\n";
  else if (!fat.CheckChain(set.first_cluster, set.no_fat_chain, set.data_length))
    line = "Deleting %ls due to file size not matching cluster allocation\n";
  if (line == nullptr) return true;
  LogMessage(line, DisplayName(set.raw_name).c_str());
  return false;
}

bool DeleteEntrySet(const EntrySet& set, const DirectoryScan& scan, bool no_fat_chain, uint64_t remaining) {
  if (set.entry_count == 0) return true;
  const BootSector& boot = *scan.boot_sector;
  const uint64_t entries_per_sector = boot.BytesPerSector() / kDirectoryEntrySize;
  if (entries_per_sector == 0) return false;
  std::vector<uint8_t> sector(Fat::kSectorBytes);
  // Entries past the device sector are never read or written back.
  const uint64_t entries_in_buffer = Fat::kSectorBytes / kDirectoryEntrySize;
  uint64_t cluster = set.cluster;
  uint64_t sector_in_cluster = set.sector_in_cluster;
  uint64_t index = set.entry_index;
  uint64_t left = set.entry_count;
  // Each pass clears at least one entry, so a looping chain cannot keep
  // this going. A sector that cannot be read leaves the buffer as it was,
  // and is written back so.
  for (;;) {
    const uint64_t number = boot.ClusterToSector(cluster) + sector_in_cluster;
    scan.device->ReadSectors(1, number, sector);
    for (; index < entries_per_sector && left > 0; ++index, --left)
      if (index < entries_in_buffer) sector[index * kDirectoryEntrySize] &= static_cast<uint8_t>(~kInUse);
    scan.device->WriteSectors(1, number, sector);
    if (left == 0) return true;
    index = 0;
    if (++sector_in_cluster == boot.SectorsPerCluster()) {
      sector_in_cluster = 0;
      cluster = scan.fat->NextCluster(cluster, no_fat_chain, remaining);
      if (cluster == Fat::kEndOfChain) return false;
    }
  }
}
