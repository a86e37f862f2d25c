#pragma once

#include "campaign/trial/context.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"

// A row at a durable point of a log the user brought (--replay). Without a
// workload no file is known to be durable: what fails is what no volume
// a driver left at a flush may show.
//   make    the base, and the log replayed onto it to the point;
//   check   fsck.exfat -n, which must find the volume clean;
//   mount   which must take the volume;
//   repair  fsck.exfat -y, which must converge, -n clean, every file of
//           the repaired volume read, a file written and read back.
void RunReplayRow(Context& context, const Row& row, uint32_t seed, RowListener& listener);
