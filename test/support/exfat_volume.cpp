#include "exfat_volume.h"

#include <gtest/gtest.h>

#include "exfat_image.h"

namespace testsupport {

ExfatVolume::ExfatVolume(uint64_t bytes, uint32_t cluster_bytes, bool read_only)
    : m_image(m_scratch / "volume.img") {
  MakeExfatImage(m_image, bytes, cluster_bytes);
  m_mounted.emplace(m_image, m_scratch / "mnt", read_only);
}

ProcessResult ExfatVolume::Run(const std::string& action) const {
  return RunTool({"-v", Path(), "-a", action});
}

void ExfatVolume::ExpectCleanAfterUnmount() {
  Unmount();
  FsckVerdict verdict = CheckImage(m_image);
  EXPECT_EQ(verdict.exit_status, 0) << verdict.output;
}

}  // namespace testsupport
