#pragma once

#include "campaign/trial/context.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"

// One of the tool's volume tests or actions on a fresh volume of the size
// it needs, mounted with the driver, in three steps reported to
// `listener` as they end:
//   make   mkfs.exfat, and the volume mounted;
//   run    qvexfat-test -v <volume>/ -a <name>: passed or failed;
//   check  unmounted, fsck.exfat -n, which must find it clean.
void RunVolumeRow(Context& context, const Row& row, RowListener& listener);
