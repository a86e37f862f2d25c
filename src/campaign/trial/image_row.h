#pragma once

#include <cstdint>

#include "campaign/trial/context.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"

// A row for an image a user brought, run on a copy of it: check, mount,
// every file read twice (the reads must agree, and match the manifest
// beside the image, if there is one), a file written and read back after a
// remount, then the repair step, the repaired volume read again.
void RunImageRow(Context& context, const Row& row, uint32_t seed, RowListener& listener);
