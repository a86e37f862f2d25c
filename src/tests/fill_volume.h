#pragma once

#include <cstdint>
#include <string>

// Fills the volume holding `directory` (which ends in "/") with one verified
// file, "<directory>filler", so that about `clusters_to_leave` clusters stay
// free. The file is read back once and stays. The caller must leave fewer
// clusters than are free. Failures (the volume filling up early among them)
// propagate.
void FillVolume(const std::string& directory, uint64_t clusters_to_leave);
