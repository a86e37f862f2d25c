#pragma once

#include <string>

// "diskspace": the driver must fail cleanly when space runs out, first for
// a file's data (only reported), then for a directory that must grow by a
// cluster when none is left (decides the result). Leaves the filler file
// and the empty files in `directory`.
void DiskSpaceTest(const std::string& directory);
