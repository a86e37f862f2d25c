// The two probes on a volume that cannot be reached. On a real volume their
// lines are compared by the tests of the built tool (and of FillVolume).

#include "tests/volume_probes.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(Probes, UnreachableVolume) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(GetClusterLength("/nonexistent/volume"), 131072u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Using default 128KB cluster size\n");

  testing::internal::CaptureStderr();
  try {
    GetFreeClusterCount("/nonexistent/volume");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to get number of free clusters");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
