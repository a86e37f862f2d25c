#pragma once

#include <string>
#include <vector>

#include "campaign/options.h"

// What the campaign runs on, for the report's header.
struct Stack {
  std::string kernel;   // uname -r
  std::string checker;  // fsck.exfat -V
  std::string tool;     // qvexfat-test and its version
  std::string fuse;     // mount.exfat-fuse -V, with --driver fuse
};

// Looks before anything is written: root, the programs (and that --tool is
// the tool), the driver, loop devices, the kernel log, the scratch device
// (confirmed, not mounted, not held) and the sizes the rows need. Fills in
// the tool's path where it was left to be found, and the image's size
// where it was left to the rows. Returns why the campaign cannot run, or "".
std::string Preflight(CampaignOptions& options, const std::vector<const Row*>& rows, Stack& stack);
