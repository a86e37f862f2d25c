#include "space_account.h"

#include <gtest/gtest.h>

using namespace faultfs;

TEST(SpaceAccount, FilesHoldWholeClusters) {
  SpaceAccount space(10 * 4096, 4096, true);
  EXPECT_EQ(space.TotalClusters(), 10u);
  space.Resize(0, 1);
  EXPECT_EQ(space.UsedClusters(), 1u);
  space.Resize(1, 4096);
  EXPECT_EQ(space.UsedClusters(), 1u);
  space.Resize(4096, 4097);
  EXPECT_EQ(space.UsedClusters(), 2u);
  EXPECT_EQ(space.FreeClusters(), 8u);
  EXPECT_TRUE(space.FitsResize(4097, 10 * 4096));
  EXPECT_FALSE(space.FitsResize(4097, 10 * 4096 + 1));
  EXPECT_TRUE(space.FitsResize(4097, 0));  // shrinking always fits
  EXPECT_EQ(space.FileEndLimit(4097), 10u * 4096);
  space.Resize(4097, 0);
  EXPECT_EQ(space.UsedClusters(), 0u);
}

TEST(SpaceAccount, DirectoriesGrowByClustersAndNeverShrink) {
  SpaceAccount space(4 * 4096, 4096, true);
  space.AddDirectory(1, 0, 0);
  EXPECT_EQ(space.UsedClusters(), 1u);  // a directory always holds a cluster
  for (int i = 0; i < 128 / 4; ++i) {   // 128 slots of 32 bytes fill one cluster
    ASSERT_TRUE(space.FitsEntry(1, 4, 0));
    space.AddEntry(1, 4);
  }
  EXPECT_EQ(space.UsedClusters(), 1u);
  EXPECT_EQ(space.EntryCount(1), 32u);
  space.AddEntry(1, 4);
  EXPECT_EQ(space.UsedClusters(), 2u);
  space.Resize(0, 2 * 4096);  // the volume is now full
  EXPECT_EQ(space.FreeClusters(), 0u);
  EXPECT_TRUE(space.FitsEntry(1, 4, 0));    // room left in the second cluster
  EXPECT_FALSE(space.FitsEntry(1, 200, 0)); // but not for a third
  EXPECT_FALSE(space.FitsEntry(1, 0, 1));   // nor for a new directory
  space.RemoveEntry(1, 4);
  EXPECT_EQ(space.UsedClusters(), 4u);
  space.RemoveDirectory(1);
  EXPECT_EQ(space.UsedClusters(), 2u);
}

TEST(SpaceAccount, WithoutEnforcementEverythingFits) {
  SpaceAccount space(2 * 4096, 4096, false);
  EXPECT_TRUE(space.FitsResize(0, 100 * 4096));
  space.Resize(0, 100 * 4096);
  EXPECT_EQ(space.FreeClusters(), 0u);
  EXPECT_TRUE(space.FitsEntry(7, 1000, 5));
}
