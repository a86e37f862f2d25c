#pragma once

#include <string>

// Runs the test or action named `action` on the mounted volume at `volume`
// and returns the exit status. An unknown name does nothing and returns 0.
int RunVolumeBranch(const std::string& volume, const std::string& action);
