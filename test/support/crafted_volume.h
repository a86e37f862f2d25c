#pragma once

// Building blocks for device-mode tests that craft directory content on an
// mkfs.exfat image: files with data, subdirectories, filler entries, and the
// expected image after the tool deleted some entry sets.

#include <cstdint>
#include <string>
#include <vector>

#include "exfat_layout.h"

namespace testsupport {

// Where a crafted entry set was written.
struct CraftedSet {
  std::u16string name;
  std::vector<uint64_t> entry_offsets;  // byte offsets of its entries
  std::vector<uint64_t> clusters;       // its data clusters
};

// A directory to write into: the root (follows its FAT chain) or a crafted
// subdirectory.
struct CraftedDir {
  uint64_t first_cluster = 0;
  bool no_fat_chain = false;
  uint64_t data_length = 0;
};

class VolumeCrafter {
 public:
  explicit VolumeCrafter(ExfatLayout& layout) : m_layout(layout) {}

  CraftedDir Root() const;
  // Writes `set` at the directory's first free slot (or at `slot` if given).
  CraftedSet Place(const CraftedDir& dir, const std::vector<RawEntry>& set, const std::u16string& name,
                   int64_t slot = -1);
  // A file of `clusters` clusters (fragmented: every other free cluster) with
  // DataLength one byte short of them and correct checksum and hash.
  CraftedSet AddFile(const CraftedDir& dir, const std::u16string& name, size_t clusters,
                     bool fragmented = false, bool no_fat_chain = false);
  // A subdirectory of one zeroed cluster, ValidDataLength `valid` (default: the
  // whole cluster).
  CraftedSet AddDirectory(const CraftedDir& dir, const std::u16string& name, CraftedDir& out,
                          uint64_t valid = 0);
  // Appends a zeroed cluster to a FAT-chained directory (the root).
  uint64_t ExtendDirectory(const CraftedDir& dir);
  // Fills slots [from, to) of a directory with not-in-use entries (type 0x05)
  // so that a scan walks past them.
  void FillUnused(const CraftedDir& dir, uint64_t from, uint64_t to);

 private:
  ExfatLayout& m_layout;
};

// The image `before` with bit 7 of the type byte cleared at each offset.
std::vector<uint8_t> WithEntriesDeleted(std::vector<uint8_t> before,
                                        const std::vector<CraftedSet>& sets);

}  // namespace testsupport
