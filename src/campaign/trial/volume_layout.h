#pragma once

#include <cstdint>
#include <map>
#include <string>

// Where a file's data lies.
struct FilePlacement {
  uint64_t first_cluster = 0;
  uint64_t clusters = 0;
  bool no_fat_chain = false;
};

// Where things lie on an unmounted volume, as the tool's own model reads
// it: what a row needs to aim its damage.
struct VolumeLayout {
  uint64_t cluster_count = 0;
  uint64_t root_cluster = 0;
  FilePlacement bitmap;
  FilePlacement upcase;
  // Bit 7 of the type byte of the root directory's eighth entry, where the
  // root damage inverts a byte.
  bool root_eighth_entry_in_use = false;
  // Every valid file and directory, by its path below the root.
  std::map<std::string, FilePlacement> files;
  // The first cluster of the first 16 free clusters in a row from the
  // middle of the heap on; 0 when there are none.
  uint64_t free_run = 0;
};

// Throws when the volume cannot be read or modelled.
VolumeLayout ReadLayout(const std::string& device);
