// The kinds that damage one byte of one sector: the up-case table, the main
// and backup boot regions and the root directory.
#include <fmt/format.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "corrupt/corruption_kinds.h"
#include "exfat/boot_sector.h"
#include "exfat/device_handle.h"
#include "exfat/fat.h"
#include "platform/log_message.h"

namespace {

constexpr size_t kSectorBytes = DeviceHandle::kDeviceModeSectorSize;
constexpr size_t kUpcaseDamageOffset = 10;
// Byte 26 of the root directory's eighth entry.
constexpr size_t kRootDamageOffset = 250;
// Sectors 1 to 11 of a boot region; sector 0 itself is never chosen.
constexpr int kBootRegionDamageSectors = 11;
constexpr uint64_t kBackupBootRegion = 12;

using Sector = std::array<uint8_t, kSectorBytes>;

void ReadSector(DeviceHandle& device, uint64_t number, Sector& sector, const std::string& error) {
  if (!device.ReadSectors(1, number, sector)) throw std::runtime_error(error);
}

void WriteSector(DeviceHandle& device, uint64_t number, const Sector& sector, const std::string& error) {
  if (!device.WriteSectors(1, number, sector)) throw std::runtime_error(error);
}

// Byte `offset` of the first sector of `cluster` inverted. The cluster is
// taken as it is: one the model never found (an up-case table that is not
// there is cluster 0) wraps round to whatever sector that makes.
void InvertClusterByte(CorruptionTarget& target, uint64_t cluster, size_t offset, const char* read_error,
                       const char* write_error) {
  const uint64_t number = target.boot_sector.ClusterToSector(cluster);
  Sector sector;
  ReadSector(target.device, number, sector, fmt::format(fmt::runtime(read_error), number));
  sector[offset] = static_cast<uint8_t>(~sector[offset]);
  WriteSector(target.device, number, sector, fmt::format(fmt::runtime(write_error), number));
}

// The main and backup kinds: the inverse of byte i lands at byte j of a
// random boot-region sector. The messages name the main-region sector
// number, and a failed write reuses the up-case table's text.
void DamageBootRegion(CorruptionTarget& target, uint64_t region_start) {
  const int drawn = rand() % kBootRegionDamageSectors + 1;
  const uint64_t number = region_start + static_cast<uint64_t>(drawn);
  Sector sector;
  ReadSector(target.device, number, sector, fmt::format("Failed to read main boot sector {}", drawn));
  const int i = rand() % static_cast<int>(kSectorBytes);
  const int j = rand() % static_cast<int>(kSectorBytes);
  sector[j] = static_cast<uint8_t>(~sector[i]);
  WriteSector(target.device, number, sector, fmt::format("Failed to write upcasetable sector: {}", drawn));
}

}  // namespace

void CorruptUpcase(CorruptionTarget& target, const std::vector<std::string>&) {
  InvertClusterByte(target, target.fat.UpcaseTableCluster(), kUpcaseDamageOffset,
                    "Failed to read upcasetable sector: {}", "Failed to write upcasetable sector: {}");
  LogMessage("Corrupted UpCase table\n");
}

void CorruptMainBoot(CorruptionTarget& target, const std::vector<std::string>&) {
  DamageBootRegion(target, 0);
  LogMessage("Corrupted main boot area\n");
}

void CorruptBackupBoot(CorruptionTarget& target, const std::vector<std::string>&) {
  DamageBootRegion(target, kBackupBootRegion);
  LogMessage("Corrupted backup boot area\n");
}

void CorruptRoot(CorruptionTarget& target, const std::vector<std::string>&) {
  InvertClusterByte(target, target.boot_sector.RootDirectoryStart(), kRootDamageOffset,
                    "Failed to read root directory sector {}", "Failed to write root directory sector: {}");
  LogMessage("Corrupted root sector area\n");
}
