#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// Makes a sparse image file of `bytes` bytes and formats it with mkfs.exfat.
// `cluster_bytes` of 0 keeps mkfs.exfat's default. Throws on failure.
void MakeExfatImage(const std::string& path, uint64_t bytes, uint32_t cluster_bytes = 0,
                    const std::string& label = "");

// Whole-file and ranged raw access to an image, for setting up damage and
// checking bytes afterwards.
std::vector<uint8_t> ReadFileBytes(const std::string& path);
std::vector<uint8_t> ReadBytes(const std::string& path, uint64_t offset, size_t length);
void WriteBytes(const std::string& path, uint64_t offset, const std::vector<uint8_t>& bytes);

// fsck.exfat -n on an image: its exit status and output.
struct FsckVerdict {
  int exit_status;
  std::string output;
};
FsckVerdict CheckImage(const std::string& path);

}  // namespace testsupport
