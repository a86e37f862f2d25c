#pragma once

#include <string>

// Why `path` cannot serve as the campaign's scratch device, or "" when it
// can: it is not a block device, or it or a partition of it is mounted,
// used as swap, held by another block device, backs a loop device, or is
// open in some process. Reads only.
std::string DeviceRefusal(const std::string& path);

// Why `path` is a whole disk the campaign should not take without
// --whole-disk, or "": it has partitions, or holds a partition table.
std::string WholeDiskRefusal(const std::string& path);
