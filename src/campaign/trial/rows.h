#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "campaign/fields/field_table.h"
#include "campaign/trial/known_tree.h"
#include "campaign/trial/volume_layout.h"

struct UserLog;

// What the damage of a row is, aimed at a volume: the description for
// `qvexfat-test -d DEV -c` and the files whose bytes or entries it hits
// (a repair may cut those short or lose them), or, when the volume has
// nothing for it to hit, why not.
struct Aim {
  std::string description;
  std::string why_not;
  std::vector<std::string> hits;  // labels of the known tree's files, "new" for the file written after it
  // Field rows: the first byte of a hit file that the change explains
  // reading otherwise (a DataLength or ValidDataLength made smaller).
  uint64_t explained_from = 0;
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
  // Field rows: the field changed instead of a damage of the tool's, the
  // tree in the root.
  const FieldFuzz* fuzz = nullptr;
  // Image rows: the image a user brought, tried instead of a volume made.
  std::string image{};
  // Power-cut rows: the workload's mark whose point the row tries, or
  // "torn" for the points inside the epochs; and the store's room for the
  // write log, past the volume.
  std::string power_cut{};
  uint64_t log_bytes = 0;
  // Replay rows: a log the user brought, and which of its points the row tries.
  UserLog* replayed = nullptr;
  size_t point = 0;
};

// How much of the store a row takes: its volume, and its log past it.
inline uint64_t StoreBytes(const Row& row) { return row.volume_bytes + row.log_bytes; }

// Every damage and volume row, the damage rows first, in the order they
// run: what a campaign runs when it is not told which.
const std::vector<Row>& AllRows();
// A field row for each field, instance and verb of the field table.
const std::vector<Row>& FieldRows();

constexpr const char* kTornRow = "torn";

// A power-cut row for each mark of the workload, "power-cut.<mark>", then
// "power-cut.torn".
const std::vector<Row>& PowerCutRows();

// A row for each image file in `directory` (raw, or compressed with gzip
// or xz), "image.<file name>", in the order of their names; a manifest
// beside an image (<image>.sha256) is not one. Each row's volume is as
// large as its image once uncompressed, 0 when that cannot be told (its
// row says why). In `error` a directory that cannot be read or holds none.
std::vector<Row> ImageRows(const std::string& directory, std::string& error);

// The steps of a row, in order: its KTAP plan.
std::vector<std::string> StepNames(const Row& row);

// Where --keep keeps a damage row's volume as it was once damaged:
// "<image>.<row>.img".
inline std::string KeptVolumePath(const std::string& image, const Row& row) { return image + "." + row.name + ".img"; }
