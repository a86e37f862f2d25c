#include "tests/fill_volume.h"

#include "tests/verified_file.h"
#include "tests/volume_probes.h"

void FillVolume(const std::string& directory, uint64_t clusters_to_leave) {
  const uint64_t free_clusters = GetFreeClusterCount(directory);
  const uint64_t cluster = GetClusterLength(directory);
  VerifiedFile filler(directory + "filler", (free_clusters - clusters_to_leave) * cluster, 1024,
                      false);
}
