#pragma once

#include "campaign/context.h"
#include "campaign/results.h"
#include "campaign/rows.h"

// One damage tried on a fresh volume of the known tree: the volume is made
// (mkfs.exfat, the tree written through the driver, found clean by the
// checker) and damaged with `qvexfat-test -d`; then the steps:
//   check   fsck.exfat -n: caught or missed;
//   mount   taken, taken read-only, or refused;
//   read    every file listed and read: same, differs, read error, missing;
//   write   a new file written and synced, the volume mounted again and
//           everything read again;
//   repair  on the volume made and damaged again, fsck.exfat -y, then -n
//           must find it clean, then every file read: intact, cut short
//           or lost.
RowResult RunDamageRow(Context& context, const Row& row);
