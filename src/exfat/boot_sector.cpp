#include "exfat/boot_sector.h"

#include <cstring>

#include "exfat/little_endian.h"
#include "platform/log_message.h"

namespace {

// Offsets within the main boot sector.
constexpr size_t kJumpBoot = 0;
constexpr size_t kFileSystemName = 3;
constexpr size_t kMustBeZero = 11;
constexpr size_t kMustBeZeroEnd = 64;
constexpr size_t kVolumeLength = 72;
constexpr size_t kFatOffset = 80;
constexpr size_t kFatLength = 84;
constexpr size_t kClusterHeapOffset = 88;
constexpr size_t kClusterCount = 92;
constexpr size_t kFirstClusterOfRootDirectory = 96;
constexpr size_t kVolumeSerialNumber = 100;
constexpr size_t kVolumeFlags = 106;
constexpr size_t kBytesPerSectorShift = 108;
constexpr size_t kSectorsPerClusterShift = 109;
constexpr size_t kNumberOfFats = 110;
constexpr size_t kBootSignature = 510;

constexpr uint8_t kVolumeFlagActiveFat = 0x01;
constexpr uint8_t kVolumeFlagVolumeDirty = 0x02;
constexpr uint8_t kVolumeFlagMediaFailure = 0x04;

// The eighth byte of the name (normally a third blank) is not compared.
constexpr char kFileSystemNamePrefix[] = "EXFAT  ";

}  // namespace

BootSector::BootSector(std::span<const uint8_t, kSize> raw)
    : m_volume_length(ReadLe64(&raw[kVolumeLength])),
      m_fat_offset(ReadLe32(&raw[kFatOffset])),
      m_fat_length(ReadLe32(&raw[kFatLength])),
      m_cluster_heap_offset(ReadLe32(&raw[kClusterHeapOffset])),
      m_cluster_count(ReadLe32(&raw[kClusterCount])),
      m_root_directory_start(ReadLe32(&raw[kFirstClusterOfRootDirectory])),
      m_volume_serial_number(ReadLe32(&raw[kVolumeSerialNumber])),
      m_bytes_per_sector(1u << (raw[kBytesPerSectorShift] & 31)),
      m_sectors_per_cluster(1u << (raw[kSectorsPerClusterShift] & 31)),
      m_bytes_per_sector_shift(raw[kBytesPerSectorShift]),
      m_sectors_per_cluster_shift(raw[kSectorsPerClusterShift]),
      m_number_of_fats(raw[kNumberOfFats]),
      m_active_fat((raw[kVolumeFlags] & kVolumeFlagActiveFat) != 0),
      m_volume_dirty((raw[kVolumeFlags] & kVolumeFlagVolumeDirty) != 0),
      m_media_failure((raw[kVolumeFlags] & kVolumeFlagMediaFailure) != 0) {}

void BootSector::PrintGeometry() const {
  LogMessage("BootSector info (in hex):\n");
  LogMessage("\tClusterHeapOffset    %#08lx\n", static_cast<unsigned long>(m_cluster_heap_offset));
  LogMessage("\tClusterCount         %#08lx\n", static_cast<unsigned long>(m_cluster_count));
  LogMessage("\tBytesPerSector       %#04x\n", m_bytes_per_sector);
  LogMessage("\tSectorsPerCluster    %#08x\n", m_sectors_per_cluster);
  LogMessage("\tNumberOfFats         %#01x\n", static_cast<unsigned>(m_number_of_fats));
  LogMessage("\tFatOffset            %#08lx\n", static_cast<unsigned long>(m_fat_offset));
  LogMessage("\tFatLength            %#08lx\n", static_cast<unsigned long>(m_fat_length));
  LogMessage("\tRootDirectoryStart   %#08lx\n", static_cast<unsigned long>(m_root_directory_start));
}

std::unique_ptr<BootSector> ParseBootSector(std::span<const uint8_t, BootSector::kSize> raw) {
  if (raw[kBootSignature] != 0x55 || raw[kBootSignature + 1] != 0xAA) {
    LogMessage("Invalid signature on boot sector\n");
    return nullptr;
  }
  if (raw[kJumpBoot] != 0xEB || raw[kJumpBoot + 1] != 0x76 || raw[kJumpBoot + 2] != 0x90) {
    LogMessage("Invalid JMP BOOT on boot sector\n");
    return nullptr;
  }
  if (strncmp(reinterpret_cast<const char*>(&raw[kFileSystemName]), kFileSystemNamePrefix,
              sizeof kFileSystemNamePrefix - 1) != 0) {
    LogMessage("Invalid filesystem name on boot sector\n");
    return nullptr;
  }
  for (size_t i = kMustBeZero; i < kMustBeZeroEnd; ++i) {
    if (raw[i] != 0) {
      LogMessage("Invalid data in non-zero area of boot sector\n");
      return nullptr;
    }
  }
  return std::make_unique<BootSector>(raw);
}
