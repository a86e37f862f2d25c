#include "cli/device_branch.h"

#include "corrupt/device_mode.h"

void RunDeviceBranch(const std::string& device, const std::string& description) {
  RunDeviceMode(device, description);
}
