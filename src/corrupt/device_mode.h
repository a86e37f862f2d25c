#pragma once

#include <string>

// Device mode: opens the unmounted exFAT volume on `device` exclusively,
// validates and models it, and damages the structure that `description`
// names. Failures throw to the caller.
void RunDeviceMode(const std::string& device, const std::string& description);
