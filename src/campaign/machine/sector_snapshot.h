#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A hash of each 512-byte sector of a device, so that the campaign can
// tell which sectors a damage run really changed: a damage that wrote
// nothing is not claimed as done.
class SectorSnapshot {
 public:
  // Reads the device whole. Throws ErrnoException when it cannot.
  explicit SectorSnapshot(const std::string& device);

  // The sectors whose bytes differ from `before`'s.
  std::vector<uint64_t> ChangedSince(const SectorSnapshot& before) const;

 private:
  std::vector<uint64_t> m_hashes;
};
