#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The field rows' volume as it is made once a run: formatted, the known
// tree written through the driver, found clean by the checker. Each field
// row starts from its bytes, restored, instead of a format and the tree
// written again: hundreds of rows take minutes, not hours, on a board.
class GoldenVolume {
 public:
  bool Made() const { return m_bytes != 0; }
  // Keeps the first `bytes` of the device: the blocks that hold anything.
  void Capture(const std::string& device, uint64_t bytes);
  // Makes the device's first bytes the golden volume's again, writing only
  // the blocks that differ; how many it wrote. Throws ErrnoException.
  uint64_t Restore(const std::string& device) const;

 private:
  uint64_t m_bytes = 0;
  std::map<uint64_t, std::vector<uint8_t>> m_blocks;  // by offset; the rest is zeros
};
