#include "cli/volume_branch.h"

#include "platform/equals_ignore_case.h"

namespace {

// Test and action names in the order they are matched; the first match runs.
struct VolumeEntry {
  const char* name;
  int (*run)(const std::string& volume);
};

constexpr VolumeEntry kVolumeEntries[] = {
    {"", nullptr},  // placeholder so the table is never empty
};

}  // namespace

int RunVolumeBranch(const std::string& volume, const std::string& action) {
  for (const VolumeEntry& entry : kVolumeEntries)
    if (entry.run != nullptr && EqualsIgnoreCase(action, entry.name)) return entry.run(volume);
  return 0;
}
