#include "exfat/cluster_bitmap.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kPageClusters = ClusterBitmap::kPageBytes * 8;

// A page of ones is one page shared by every bitmap that has one: a bit
// cleared in one bitmap's page must leave every other page of ones, this
// bitmap's, another's and the next one filled, as it was.
TEST(ClusterBitmap, APageSharedWithNoOtherBitmapIsCopiedBeforeItIsWritten) {
  ClusterBitmap first(ClusterBitmap::kPageBytes * 2);
  first.Fill(2, 2 + kPageClusters - 1, true);
  ASSERT_TRUE(first.KnownFilled(0, true));
  EXPECT_TRUE(first.Set(10, false));
  EXPECT_FALSE(first.Test(10));
  EXPECT_FALSE(first.KnownFilled(0, true));

  ClusterBitmap second(ClusterBitmap::kPageBytes);
  second.Fill(2, 2 + kPageClusters - 1, true);
  EXPECT_TRUE(second.KnownFilled(0, true));
  EXPECT_TRUE(second.Test(10));

  first.Fill(2 + kPageClusters, 2 + 2 * kPageClusters - 1, true);
  EXPECT_TRUE(first.Test(10 + kPageClusters));
  EXPECT_TRUE(first.Set(10 + kPageClusters, false));
  EXPECT_TRUE(second.Test(10));
}

}  // namespace
