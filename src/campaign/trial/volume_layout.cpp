#include "campaign/trial/volume_layout.h"

#include <span>
#include <stdexcept>
#include <vector>

#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/directory_scan.h"
#include "exfat/entry_set.h"
#include "exfat/fat.h"
#include "exfat/little_endian.h"

namespace {

constexpr uint64_t kBootRegionSectors = 12;
constexpr uint64_t kFreeRun = 16;
// In the root directory's first sector.
constexpr size_t kEighthEntryType = 7 * kDirectoryEntrySize;
constexpr uint8_t kInUse = 0x80;
constexpr uint8_t kBitmapEntryType = 0x81;
constexpr uint8_t kUpcaseEntryType = 0x82;
constexpr uint8_t kLabelEntryType = 0x83;
// Allocation Bitmap and Up-case Table entries.
constexpr size_t kFirstCluster = 20;
constexpr size_t kDataLength = 24;

std::string Utf8(const std::u16string& name) {
  std::string text;
  for (size_t i = 0; i < name.size(); ++i) {
    uint32_t c = name[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < name.size() && name[i + 1] >= 0xDC00 && name[i + 1] < 0xE000)
      c = 0x10000 + ((c - 0xD800) << 10) + (name[++i] - 0xDC00);
    if (c < 0x80) {
      text += static_cast<char>(c);
    } else if (c < 0x800) {
      text += static_cast<char>(0xC0 | c >> 6);
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      text += static_cast<char>(0xE0 | c >> 12);
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      text += static_cast<char>(0xF0 | c >> 18);
      text += static_cast<char>(0x80 | (c >> 12 & 0x3F));
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return text;
}

uint64_t Clusters(uint64_t bytes, uint64_t cluster_bytes) { return (bytes + cluster_bytes - 1) / cluster_bytes; }

// Where each entry of `set` begins, following its directory's chain across
// sectors and clusters as a driver does.
std::vector<uint64_t> EntryBytes(const BootSector& boot, Fat& fat, const EntrySet& set, bool directory_no_fat_chain) {
  const uint64_t entries_per_sector = boot.BytesPerSector() / kDirectoryEntrySize;
  std::vector<uint64_t> entries;
  uint64_t cluster = set.cluster;
  uint64_t sector = set.sector_in_cluster;
  uint64_t index = set.entry_index;
  while (entries.size() < set.entry_count && fat.InRange(cluster)) {
    entries.push_back((boot.ClusterToSector(cluster) + sector) * boot.BytesPerSector() + index * kDirectoryEntrySize);
    if (++index < entries_per_sector) continue;
    index = 0;
    if (++sector < boot.SectorsPerCluster()) continue;
    sector = 0;
    cluster = directory_no_fat_chain ? cluster + 1 : fat.ReadFatEntry(cluster);
  }
  return entries;
}

}  // namespace

VolumeLayout ReadLayout(const std::string& device_path) {
  DeviceHandle device;
  device.Open(device_path, DeviceHandle::kDeviceModeSectorSize, true);
  std::vector<uint8_t> boot_region(kBootRegionSectors * DeviceHandle::kDeviceModeSectorSize);
  if (!device.ReadSectors(kBootRegionSectors, 0, boot_region)) throw std::runtime_error("cannot read the boot region");
  std::unique_ptr<BootSector> boot =
      ParseBootSector(std::span<const uint8_t, BootSector::kSize>(boot_region.data(), BootSector::kSize));
  if (!boot) throw std::runtime_error("no valid boot sector");
  const uint64_t cluster_bytes = uint64_t{boot->BytesPerSector()} * boot->SectorsPerCluster();

  VolumeLayout layout;
  layout.bytes_per_sector = boot->BytesPerSector();
  layout.cluster_bytes = cluster_bytes;
  layout.fat_offset = boot->FatOffset() * boot->BytesPerSector();
  layout.heap_offset = boot->ClusterHeapOffset() * boot->BytesPerSector();
  layout.cluster_count = boot->ClusterCount();
  layout.root_cluster = boot->RootDirectoryStart();
  std::unique_ptr<Fat> fat = CreateFat(device, *boot);
  std::unique_ptr<EntrySet> root = MakeRootEntrySet(*boot);
  ScanRoot(device, *boot, *fat, *root, [&](std::span<const EntrySet* const> directories, const EntrySet& set) {
    std::string path;
    for (const EntrySet* directory : directories) path += Utf8(directory->raw_name) + "/";
    const bool directory_no_fat_chain = !directories.empty() && directories.back()->no_fat_chain;
    layout.files[path + Utf8(set.raw_name)] = {set.first_cluster, Clusters(set.data_length, cluster_bytes),
                                               set.no_fat_chain, EntryBytes(*boot, *fat, set, directory_no_fat_chain),
                                               set.cluster};
  });
  layout.upcase_table.resize(Fat::kUpcaseTableEntries);
  for (size_t unit = 0; unit < layout.upcase_table.size(); ++unit)
    layout.upcase_table[unit] = fat->UpcaseEntry(static_cast<uint16_t>(unit));

  std::vector<uint8_t> sector(DeviceHandle::kDeviceModeSectorSize);
  if (!device.ReadSectors(1, boot->ClusterToSector(layout.root_cluster), sector))
    throw std::runtime_error("cannot read the root directory");
  layout.root_eighth_entry_in_use = (sector[kEighthEntryType] & kInUse) != 0;
  const uint64_t root_byte = boot->ClusterToSector(layout.root_cluster) * boot->BytesPerSector();
  for (size_t at = 0; at < sector.size(); at += kDirectoryEntrySize) {
    const FilePlacement table{ReadLe32(&sector[at + kFirstCluster]),
                              Clusters(ReadLe64(&sector[at + kDataLength]), cluster_bytes), false, {root_byte + at},
                              layout.root_cluster};
    if (sector[at] == kBitmapEntryType) layout.bitmap = table;
    if (sector[at] == kUpcaseEntryType) layout.upcase = table;
    if (sector[at] == kLabelEntryType) layout.label_entry = root_byte + at;
  }

  uint64_t run = 0;
  for (uint64_t cluster = layout.cluster_count / 2 + 2; cluster < layout.cluster_count + 2; ++cluster) {
    run = fat->IsClusterAllocated(cluster) ? 0 : run + 1;
    if (run == kFreeRun) {
      layout.free_run = cluster - kFreeRun + 1;
      break;
    }
  }
  return layout;
}
