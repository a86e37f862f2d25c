// libFuzzer target over device mode. An input is a sparse image: a first
// byte that picks the damage to apply, then records of a 4-byte sector
// number (little-endian) and that sector's 512 bytes. Sectors not given are
// zeros; the image ends after the highest sector given. make_corpus.py
// turns the suite's images into such inputs.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <string>

#include "corrupt/device_mode.h"

namespace {

constexpr size_t kSector = 512;
constexpr size_t kRecord = 4 + kSector;
constexpr uint64_t kMaxSectors = 64ull << 20 >> 9;  // images of up to 64 MiB

const char* const kDescriptions[] = {
    "", "fat", "bitmap", "upcase", "main", "backup", "root",
    "fat:start:2:range:40:value:0", "bitmap:start:2:range:40:value:1", "bitmap:start:0:range:3:value:0",
};

std::string ImagePath() {
  const char* given = getenv("QVEXFAT_FUZZ_IMAGE");
  return given ? given : "/tmp/qvexfat-fuzz-" + std::to_string(getpid()) + ".img";
}

bool WriteImage(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = true;
  for (size_t at = 0; ok && at + kRecord <= size; at += kRecord) {
    const uint64_t sector = data[at] | data[at + 1] << 8 | data[at + 2] << 16 | uint64_t{data[at + 3]} << 24;
    ok = sector < kMaxSectors &&
         pwrite(fd, data + at + 4, kSector, static_cast<off_t>(sector * kSector)) == static_cast<ssize_t>(kSector);
  }
  close(fd);
  return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static const std::string path = ImagePath();
  if (!WriteImage(path, data + 1, size - 1)) return -1;  // not an image: not kept
  srand(1);  // the damage's random defaults, the same for every run of an input
  try {
    RunDeviceMode(path, kDescriptions[data[0] % std::size(kDescriptions)]);
  } catch (const std::exception&) {
    // A failed run is an outcome, as it is for the tool.
  }
  return 0;
}
