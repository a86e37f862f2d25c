#include "tests/volume_probes.h"

#include <sys/statvfs.h>

#include <stdexcept>

#include "platform/log_message.h"

namespace {

constexpr uint64_t kDefaultClusterLength = 131072;

}  // namespace

uint64_t GetFreeClusterCount(const std::string& path) {
  struct statvfs64 info {};
  if (statvfs64(path.c_str(), &info) != 0)
    throw std::runtime_error("Failed to get number of free clusters");
  LogMessage("%lu free clusters\n", static_cast<unsigned long>(info.f_bfree));
  return info.f_bfree;
}

uint64_t GetClusterLength(const std::string& path) {
  struct statvfs64 info {};
  if (statvfs64(path.c_str(), &info) == 0 && info.f_bsize != 0) {
    LogMessage("Cluster length %lu bytes\n", static_cast<unsigned long>(info.f_bsize));
    return info.f_bsize;
  }
  LogMessage("Using default 128KB cluster size\n");
  return kDefaultClusterLength;
}
