#pragma once

#include <string>
#include <vector>

#include "campaign/fields/field_table.h"
#include "campaign/trial/known_tree.h"
#include "campaign/trial/volume_layout.h"

// What changing one field of a volume did.
struct FuzzOutcome {
  // "fuzz: stream.DataLength at byte 2138136 of the volume, 8 bytes:
  // 40 9c 00 00 00 00 00 00 -> 41 9c 00 00 00 00 00 00", then a
  // "fixed: SetChecksum" line for each checksum recomputed.
  std::vector<std::string> lines;
  // The tree's files whose entries or chain the change reaches, whose
  // reading back otherwise is explained by it.
  std::vector<std::string> hits;
  // Where a hit file may begin to read otherwise: the smaller of the old
  // and new length for a length, else 0.
  uint64_t explained_from = 0;
  // Why nothing was changed: the instance is not on the volume, or the verb
  // leaves the bytes as they were.
  std::string skipped;
};

// Changes the field of `fuzz` on the unmounted volume on `device`, whose
// layout is `layout` and which holds `tree` in its root, then recomputes
// the checksums that cover it. Throws ErrnoException when the device
// cannot be read or written.
// `seed` draws the file a crosslink points at.
FuzzOutcome ApplyFuzz(const std::string& device, const VolumeLayout& layout, const KnownTree& tree,
                      const FieldFuzz& fuzz, uint32_t seed);
