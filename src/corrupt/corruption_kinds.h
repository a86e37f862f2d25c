#pragma once

#include <string>
#include <vector>

class BootSector;
class DeviceHandle;
class Fat;

// The loaded volume that a corruption damages.
struct CorruptionTarget {
  DeviceHandle& device;
  BootSector& boot_sector;
  Fat& fat;
};

// Each kind takes the whole description's tokens (the kind first). The fat
// and bitmap kinds draw their random defaults (start, range, value, in that
// order) before reading the keywords; the others ignore the tokens.

// Overwrites FAT entries start .. start + range - 1 with value, each
// written through at once. Only the first FAT is touched.
void CorruptFat(CorruptionTarget& target, const std::vector<std::string>& tokens);
// Sets or clears the bitmap bits of clusters start .. start + range - 1 over
// the loaded allocation bitmap and rewrites the whole bitmap on disk.
void CorruptBitmap(CorruptionTarget& target, const std::vector<std::string>& tokens);
// Inverts byte 10 of the up-case table's first sector.
void CorruptUpcase(CorruptionTarget& target, const std::vector<std::string>& tokens);
// Stores the inverse of one random byte at a random place of a random
// sector 1 to 11 of the main boot region.
void CorruptMainBoot(CorruptionTarget& target, const std::vector<std::string>& tokens);
// The same in the backup boot region (sectors 13 to 23).
void CorruptBackupBoot(CorruptionTarget& target, const std::vector<std::string>& tokens);
// Inverts byte 250 of the root directory's first sector.
void CorruptRoot(CorruptionTarget& target, const std::vector<std::string>& tokens);
