#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Where a file's data lies, and its entry set.
struct FilePlacement {
  uint64_t first_cluster = 0;
  uint64_t clusters = 0;
  bool no_fat_chain = false;
  // The byte of the volume where each entry of the set begins, the File
  // entry first, and the cluster of the directory that holds the File entry.
  std::vector<uint64_t> entries;
  uint64_t directory_cluster = 0;
};

// Where things lie on an unmounted volume, as the tool's own model reads
// it: what a row needs to aim its damage.
struct VolumeLayout {
  uint64_t bytes_per_sector = 0;
  uint64_t cluster_bytes = 0;
  uint64_t fat_offset = 0;   // in bytes, as the offsets below
  uint64_t heap_offset = 0;  // where cluster 2 begins
  uint64_t cluster_count = 0;
  uint64_t root_cluster = 0;
  // The byte where the root's volume label entry begins (0: none); the
  // bitmap's and the up-case table's are their `entries`.
  uint64_t label_entry = 0;
  // The up-case table as the volume holds it, a unit for a unit.
  std::vector<uint16_t> upcase_table;
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
