#pragma once

#include <cstdint>
#include <string>

// Free clusters of the volume holding `path` (statvfs f_bfree: the
// filesystem block is the cluster). Prints "<n> free clusters". Throws
// std::runtime_error when the volume cannot be queried.
uint64_t GetFreeClusterCount(const std::string& path);

// Cluster length in bytes of the volume holding `path` (statvfs f_bsize).
// Prints "Cluster length <n> bytes"; when the volume cannot be queried or
// reports 0, prints the fallback line and returns 128 KiB. Never throws.
uint64_t GetClusterLength(const std::string& path);
