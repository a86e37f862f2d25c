#include "cli/volume_branch.h"

#include "cli/fill_directory.h"
#include "cli/fragment_disk.h"
#include "platform/equals_ignore_case.h"
#include "tests/cluster_allocation.h"
#include "tests/directory_structure.h"
#include "tests/disk_space.h"
#include "tests/filename_limits.h"
#include "tests/rename.h"
#include "tests/truncate.h"
#include "tests/truncate_bug31031.h"
#include "tests/test_runner.h"

namespace {

// Test and action names in the order they are matched; the first match runs.
// A test's status is 0 when it passed and -1 when it failed.
struct VolumeEntry {
  const char* name;
  int (*run)(const std::string& volume);
};

template <VolumeTest test>
int Run(const std::string& volume) {
  return RunTest(volume, test) ? 0 : -1;
}

constexpr VolumeEntry kVolumeEntries[] = {
    {"truncatebug31031", Run<TruncateBug31031Test>},
    {"directory", Run<DirectoryStructureTest>},
    {"filename", Run<FilenameTest>},
    {"cluster", Run<ClusterAllocationTest>},
    {"rename", Run<RenameTest>},
    {"truncate", Run<TruncateTest>},
    {"diskspace", Run<DiskSpaceTest>},
    {"fragdisk", FragmentDisk},
    {"filldir", FillDirectory},
};

}  // namespace

int RunVolumeBranch(const std::string& volume, const std::string& action) {
  for (const VolumeEntry& entry : kVolumeEntries)
    if (EqualsIgnoreCase(action, entry.name)) return entry.run(volume);
  return 0;
}
