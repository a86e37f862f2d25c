#include "corrupt/device_mode.h"

void RunDeviceMode(const std::string& /*device*/, const std::string& /*description*/) {
  // The volume model is not connected yet: device mode does nothing.
}
