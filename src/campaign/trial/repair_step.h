#pragma once

#include <functional>
#include <string>

#include "campaign/trial/known_tree.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/volume_under_test.h"

// A damage row's repair step, on the volume as the driver left it, as
// fstests repairs: fsck.exfat -y, the sectors it changed counted (nothing
// to repair only when no byte changed), repeated while a pass changes
// something, at most three passes: one pass must have done it; -n, which
// must find the volume clean; then the volume mounted, its files read
// back by `read_files` (which says how they read, in a few words), `added`
// written, synced and read back after a remount, and -n once more.
void RepairStep(VolumeUnderTest& volume, const std::function<std::string(StepObservation&)>& read_files,
                const TreeFile& added);
