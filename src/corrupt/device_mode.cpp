#include "corrupt/device_mode.h"

#include <fmt/format.h>

#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "corrupt/corruption_description.h"
#include "corrupt/corruption_kinds.h"
#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/directory_scan.h"
#include "exfat/fat.h"
#include "platform/equals_ignore_case.h"
#include "platform/log_message.h"

namespace {

constexpr uint64_t kBootRegionSectors = 12;

using CorruptionKind = void (*)(CorruptionTarget&, const std::vector<std::string>&);

// Matched whole and case-insensitively, in this order.
constexpr struct {
  const char* name;
  CorruptionKind run;
} kCorruptions[] = {
    {"fat", CorruptFat},        {"bitmap", CorruptBitmap},         {"upcase", CorruptUpcase},
    {"main", CorruptMainBoot},  {"backup", CorruptBackupBoot},     {"root", CorruptRoot},
};

void ApplyCorruption(CorruptionTarget& target, const std::vector<std::string>& tokens) {
  for (const auto& kind : kCorruptions) {
    if (EqualsIgnoreCase(tokens.front(), kind.name)) {
      kind.run(target, tokens);
      return;
    }
  }
  LogMessage("Unknown corruption: %s\n", tokens.front().c_str());
}

}  // namespace

void RunDeviceMode(const std::string& path, const std::string& description) {
  // Declared so that leaving this function, however it ends, releases the
  // FAT model, the tokens, the root set, then the device (its fsync is the
  // only flush of device mode), then the boot sector.
  std::unique_ptr<BootSector> boot_sector;
  DeviceHandle device;
  std::unique_ptr<EntrySet> root_set;
  std::vector<std::string> tokens;
  std::unique_ptr<Fat> fat;

  if (!device.Open(path, DeviceHandle::kDeviceModeSectorSize, false))
    throw std::runtime_error(fmt::format("Failed to open {}\n", path));
  LogMessage("Device %s opened, %lld sectors in size (%lld MBytes)\n", path.c_str(),
             static_cast<long long>(device.SectorCount()), static_cast<long long>(device.SectorCount() >> 11));

  std::vector<uint8_t> boot_region(kBootRegionSectors * DeviceHandle::kDeviceModeSectorSize);
  if (!device.ReadSectors(kBootRegionSectors, 0, boot_region)) throw std::runtime_error("Failed to read main boot");
  boot_sector = ParseBootSector(std::span<const uint8_t, BootSector::kSize>(boot_region.data(), BootSector::kSize));
  if (!boot_sector) throw std::runtime_error("Failed to parse boot sector");
  boot_sector->PrintGeometry();

  fat = CreateFat(device, *boot_sector);
  if (!fat) throw std::runtime_error("Failed to create FAT");

  // Loads the allocation bitmap and the up-case table, and deletes every bad
  // entry set, before anything is damaged.
  root_set = MakeRootEntrySet(*boot_sector);
  ScanRoot(device, *boot_sector, *fat, *root_set);

  tokens = SplitDescription(description);
  if (tokens.empty()) return;
  CorruptionTarget target{device, *boot_sector, *fat};
  ApplyCorruption(target, tokens);
}
