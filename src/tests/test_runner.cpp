#include "tests/test_runner.h"

#include "platform/log_message.h"
#include "tests/recreate_directory.h"

bool RunTest(const std::string& volume, VolumeTest test) {
  // Plain concatenation: a volume given with a trailing "/" yields "//",
  // which the system accepts.
  const std::string directory = volume + "/runtests/";
  try {
    RecreateDirectory(directory);
    test(directory);
  } catch (...) {
    LogMessage("Test failure\n");
    return false;
  }
  return true;
}
