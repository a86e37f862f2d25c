#include "cli/program.h"

#include <cstdio>
#include <exception>

#include "cli/command_line.h"
#include "cli/seed_random.h"
#include "cli/volume_branch.h"
#include "corrupt/device_mode.h"
#include "platform/log_message.h"

namespace {

// Runs both branches; every failure that reaches here ends the run with -1.
int RunBranches(const CommandLineOptions& options) {
  try {
    int status = 0;
    if (!options.device.empty()) RunDeviceMode(options.device, options.corrupt);
    if (!options.volume.empty()) status = RunVolumeBranch(options.volume, options.action);
    return status;
  } catch (const std::exception& e) {
    fprintf(stderr, "Test failed: %s\n", e.what());
  } catch (...) {
    LogMessage("Test failed due to unknown error\n");
  }
  return -1;
}

}  // namespace

int RunProgram(int argc, char* argv[]) {
  CommandLineOptions options = ParseCommandLine(argc, argv);
  if (!options.ok) return 1;
  // Seeding runs before the handler is in force: an unreadable /dev/urandom
  // ends the process as an uncaught exception.
  SeedRandom();
  return RunBranches(options);
}
