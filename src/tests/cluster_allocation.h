#pragma once

#include <string>

// "cluster": ten files grown round-robin by appends of random length, ten
// passes over, so that their cluster chains interleave; then each is read
// back and compared. The ten files stay in `directory`.
void ClusterAllocationTest(const std::string& directory);
