#include "exfat/directory_scan.h"

#include <gtest/gtest.h>

#include "crafted_volume.h"
#include "device_expect.h"
#include "loaded_volume_test_util.h"

namespace {

using exfat_test::InvalidCluster;
using exfat_test::LoadedVolume;
using exfat_test::StderrOf;
using exfat_test::TestImage;
using testsupport::CraftedDir;
using testsupport::EntrySetSpec;
using testsupport::ExfatLayout;
using testsupport::VolumeCrafter;

// Scans the image in-process and returns what the scan printed.
std::string Scan(const std::string& path) {
  LoadedVolume volume(path);
  std::unique_ptr<EntrySet> root = MakeRootEntrySet(*volume.boot);
  return StderrOf([&] { ScanRoot(volume.device, *volume.boot, *volume.fat, *root); });
}

}  // namespace

TEST(ScanRoot, TreeDeeperThanTheLimitIsWalkedToTheLimitOnly) {
  TestImage image(32 * 1024 * 1024, 512);
  ExfatLayout layout(image.path);
  VolumeCrafter craft(layout);
  CraftedDir dir = craft.Root();
  for (size_t depth = 1; depth <= kMaxDirectoryDepth + 1; ++depth) {
    CraftedDir child;
    craft.AddDirectory(dir, u"d", child);
    dir = child;
    if (depth == kMaxDirectoryDepth) {
      EntrySetSpec spec;
      spec.name = u"at-limit";
      craft.Place(dir, testsupport::BuildEntrySet(spec), spec.name);
    }
  }
  EntrySetSpec spec;
  spec.name = u"below-limit";
  craft.Place(dir, testsupport::BuildEntrySet(spec), spec.name);

  // The directory at the limit is walked (its empty file is deleted), its
  // subdirectory is not (the empty file below stays).
  EXPECT_EQ(Scan(image.path), InvalidCluster(0, layout.Geometry().cluster_count) +
                                  "Deleting at-limit due to invalid first cluster\n" +
                                  testsupport::Format("Not scanning d: directories nested deeper than %zu\n",
                                                      kMaxDirectoryDepth));
}
