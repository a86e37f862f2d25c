// The control runs for the fault tests: on faultfs with no fault set, every
// volume test passes. A test's failure on a fault then shows that fault, not
// something else about faultfs.

#include "fault_volume.h"  // first: it sets up the warnings for <regex>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

using namespace faulttest;
using testsupport::Lines;
using testsupport::ProcessResult;

namespace {

struct ControlRun {
  const char* test;
  uint64_t size;      // capacity of the healthy volume
  const char* last;   // the line the passing test ends with
};

void PrintTo(const ControlRun& run, std::ostream* out) { *out << run.test; }

class HealthyFaultFs : public ::testing::TestWithParam<ControlRun> {};

}  // namespace

TEST_P(HealthyFaultFs, TestPasses) {
  QVEXFAT_REQUIRE_FUSE();
  const ControlRun& run = GetParam();
  FaultVolume volume(Options("", run.size));
  ProcessResult r = volume.Run(run.test);
  EXPECT_EQ(r.exit_status, 0) << r.err;
  const auto lines = Lines(r.err);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().rfind(run.last, 0), 0u) << r.err;
  for (const auto& line : lines) EXPECT_EQ(line.find("ailed"), std::string::npos) << line;
}

INSTANTIATE_TEST_SUITE_P(
    EveryVolumeTest, HealthyFaultFs,
    ::testing::Values(
        ControlRun{"truncate", 256ull << 20,
                   "High half: 4194304 zero bytes, 0 unmodified bytes, 0 other bytes"},
        ControlRun{"truncatebug31031", 256ull << 20, "Truncate file1 twice"},
        ControlRun{"diskspace", 8 << 20, "DiskSpaceTest passed: "},
        ControlRun{"rename", 256ull << 20, "Rename test success: "},
        ControlRun{"filename", 256ull << 20, "Filename name test passed: "},
        ControlRun{"directory", 256ull << 20, "Directory structure test success"},
        ControlRun{"cluster", 256ull << 20, "Cluster allocation test success"}),
    [](const ::testing::TestParamInfo<ControlRun>& info) { return std::string(info.param.test); });
