#pragma once

#include "campaign/trial/context.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"

// One damage tried on a fresh volume of the known tree, in six steps on
// the one volume, each reported to `listener` as it ends:
//   make    mkfs.exfat, the tree written through the driver, fsck.exfat -n
//           finds it clean, the damage aimed at the volume's layout and
//           applied with `qvexfat-test -d` (drawn again while it changes
//           no byte);
//   check   fsck.exfat -n: caught or missed;
//   mount   taken, taken read-only, or refused;
//   read    every file listed and read: same, differs, read error, missing;
//   write   a new file written and synced, the volume mounted again and
//           everything read again, then fsck.exfat -n;
//   repair  the volume as the driver left it: fsck.exfat -y, which must
//           leave nothing for a second pass, then -n must find it clean;
//           every file read, a file written and read back after a remount,
//           and fsck.exfat -n again.
void RunDamageRow(Context& context, const Row& row, uint32_t seed, RowListener& listener);
