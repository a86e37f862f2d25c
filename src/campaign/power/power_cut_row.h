#pragma once

#include <cstdint>

#include "campaign/trial/context.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"

// A power-cut row. The first of them to run records the workload through
// dm-log-writes (see RecordWorkload); each then replays the log onto the
// base volume up to its point, as a power cut there would leave the medium.
//
// A mark's row, at the point its mark ends (everything the step synced is
// on the medium, and the driver has promised it):
//   make    the log replayed to the mark;
//   check   fsck.exfat -n, which must find the volume clean;
//   mount   which must take the volume;
//   read    every file durable by then: there, as synced;
//   repair  fsck.exfat -y as on a damaged volume, -n clean, the durable
//           files still there, a file written and read back.
// The torn row, at points drawn inside the epochs (a cut while the device
// takes writes it has not been asked to make durable):
//   replay  the points;
//   check   fsck.exfat -n at each: damage there is knowledge;
//   repair  at each: fsck.exfat -y, which must converge and leave the
//           volume clean, with the files durable before the epoch intact.
void RunPowerCutRow(Context& context, const Row& row, uint32_t seed, RowListener& listener);
