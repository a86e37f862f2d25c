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

// Why the campaign will not run: a usage error (a program named that is
// not there, a device not confirmed or in use, an image that exists, a
// size too small), or a prerequisite this machine lacks (root, a driver,
// loop devices, the kernel log, a program the campaign needs), for which
// the run is skipped.
struct Refusal {
  std::string reason;  // empty when the campaign can run
  bool missing_prerequisite = false;
};

// Looks before anything is written: the programs named (and that --tool is
// the tool), root, the programs needed, the driver, loop devices, the kernel
// log, the scratch device (confirmed, not mounted, not held) and the sizes
// the rows need. Fills in the tool's path where it was left to be found,
// and the image's size where it was left to the rows.
Refusal Preflight(CampaignOptions& options, const std::vector<const Row*>& rows, Stack& stack);
