#pragma once

#include "campaign/context.h"
#include "campaign/results.h"
#include "campaign/rows.h"

// One of the tool's volume tests or actions on a fresh volume of the size
// it needs, mounted with the driver:
//   run    qvexfat-test -v <volume>/ -a <name>: passed or failed;
//   check  unmounted, fsck.exfat -n: clean, or what it found.
RowResult RunVolumeRow(Context& context, const Row& row);
