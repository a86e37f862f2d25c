#include "tests/disk_space.h"

#include <unistd.h>

#include <cstdint>
#include <stdexcept>

#include "platform/log_message.h"
#include "tests/fill_volume.h"
#include "tests/name_pattern.h"
#include "tests/verified_file.h"
#include "tests/volume_probes.h"

namespace {

constexpr uint64_t kClustersLeft = 8;
constexpr uint64_t kLastFileClusters = 10;
constexpr int64_t kDirectoryEntryBytes = 32;
constexpr int64_t kDirectoryClusters = 4;

}  // namespace

void DiskSpaceTest(const std::string& directory) {
  const std::string last = directory + "lastfile.bin";
  LogMessage("Disk space test\n");
  FillVolume(directory, kClustersLeft);
  const uint64_t cluster = GetClusterLength(directory);

  // Ten clusters of data into eight free ones. This check only reports.
  try {
    VerifiedFile file(last, kLastFileClusters * cluster, 512, true);
    LogMessage("DiskSpaceTest failed\n");
  } catch (const std::exception& e) {
    LogMessage("DiskSpaceTest passed: %s\n", e.what());
  }
  unlink(last.c_str());

  LogMessage("Create a lot of files to check that directory cluster allocation fails correctly\n");
  try {
    // Four clusters' worth of 32-byte entries: far more than eight free
    // clusters hold, as each name takes 3 to 19 entries.
    const int64_t count = (static_cast<int64_t>(cluster) / kDirectoryEntryBytes) * kDirectoryClusters;
    for (int64_t i = 0; i < count; ++i) {
      VerifiedFile file(directory + MakeFileName(static_cast<int32_t>(i), 0), 0, 512, false);
    }
    LogMessage("DiskSpaceTest failed\n");
  } catch (const std::exception& e) {
    LogMessage("DiskSpaceTest passed: %s\n", e.what());
    return;
  }
  // The failure text has always named the rename test.
  throw std::runtime_error("RenameTest failed");
}
