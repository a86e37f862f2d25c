#pragma once

#include <string>

// Opens, validates and models the exFAT volume on `device`, then applies
// the corruption that `description` names. Failures throw.
void RunDeviceBranch(const std::string& device, const std::string& description);
