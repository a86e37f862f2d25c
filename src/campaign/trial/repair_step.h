#pragma once

#include <utility>
#include <vector>

#include "campaign/trial/known_tree.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/volume_under_test.h"

// A damage row's repair step, on the volume as the driver left it, as
// fstests repairs: fsck.exfat -y, the sectors it changed counted (nothing
// to repair only when no byte changed); a second -y, which must change
// nothing; -n, which must find the volume clean; then the volume mounted,
// `files` read back as each must be, `added` written, synced and read back
// after a remount, and -n once more.
void RepairStep(VolumeUnderTest& volume, const std::vector<std::pair<TreeFile, Expect>>& files, const TreeFile& added);
