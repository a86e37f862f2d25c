#pragma once

#include <cstdint>
#include <string>

// Copies the first `bytes` of a device into a new sparse file at `path`:
// blocks of zeros are left as holes, so a copy of a fresh 32M volume takes
// what the volume holds. An existing file is refused (ErrnoException
// EEXIST); a copy that fails is removed.
void CopyVolume(const std::string& device, uint64_t bytes, const std::string& path);
