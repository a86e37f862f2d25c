#pragma once

#include <string>

#include "campaign/trial/context.h"
#include "campaign/trial/known_tree.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"
#include "campaign/trial/volume_under_test.h"

// mkfs.exfat with the row's cluster size, the known tree written through
// the driver, fsck.exfat -n finding the fresh volume clean. Returns what
// stops the row (the step's `not_carried_out`), or "".
std::string MakeTreeVolume(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                           StepObservation& step);

// A damage row's make step: mkfs.exfat, the known tree written through the
// driver, fsck.exfat -n finding the fresh volume clean, the damage aimed at
// the volume's own layout (into `aim`) and applied with `qvexfat-test -d`,
// drawn again while it changes no byte. Returns what stops the row (the
// step's `not_carried_out` or `skipped`), or "".
std::string MakeDamagedVolume(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                              StepObservation& step, Aim& aim);

// A field row's make step: the volume made as for a damage row, then the
// row's field changed and the checksums over it recomputed, the files it
// reaches into `aim.hits`.
std::string MakeFuzzedVolume(const Context& context, const Row& row, const KnownTree& tree, VolumeUnderTest& volume,
                             StepObservation& step, Aim& aim);
