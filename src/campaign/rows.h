#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "campaign/known_tree.h"
#include "campaign/volume_layout.h"

// What the damage of a row is, aimed at a volume: the description for
// `qvexfat-test -d DEV -c`, or, when the volume has nothing for it to hit,
// why not.
struct Aim {
  std::string description;
  std::string why_not;
};

// One row of the campaign: a damage tried on a volume of the known tree,
// or one of the tool's volume tests and actions.
struct Row {
  std::string name;
  bool damage;
  uint64_t volume_bytes;
  uint64_t cluster_bytes;
  // Damage rows: where the known tree goes ("" for the root itself) and how
  // the damage is aimed from the volume's layout.
  std::string tree_base;
  Aim (*aim)(const VolumeLayout& layout, const KnownTree& tree);
};

// Every row, the damage rows first, in the order they run.
const std::vector<Row>& AllRows();
