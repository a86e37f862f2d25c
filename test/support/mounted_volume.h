#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace testsupport {

// Why exFAT images cannot be mounted here (not root, no /dev/fuse, no loop
// devices, no exfat-fuse), or nothing when they can.
std::optional<std::string> MountUnavailableReason();

// True when running under CI (CI=true), where a skipped mount test is a
// failure: CI must never pass without the mounted-volume tests.
bool InCi();

// An image attached to a loop device and mounted with exfat-fuse. The
// destructor unmounts and detaches, also when the test fails; a CTest
// clean-up fixture catches what a killed test leaves behind.
class MountedVolume {
 public:
  MountedVolume(const std::string& image, const std::string& mount_point, bool read_only = false);
  ~MountedVolume();
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  const std::string& MountPoint() const { return m_mount_point; }
  const std::string& LoopDevice() const { return m_loop; }
  // Unmounts and detaches now (idempotent); throws when that fails, so a
  // test can examine the image afterwards.
  void Unmount();

 private:
  std::string m_image;
  std::string m_mount_point;
  std::string m_loop;
  bool m_mounted = false;
};

}  // namespace testsupport

// Skips the current test when mounting is impossible here, or fails it
// under CI.
#define QVEXFAT_REQUIRE_MOUNTS()                                                    \
  do {                                                                              \
    if (auto qvexfat_why = ::testsupport::MountUnavailableReason()) {               \
      if (::testsupport::InCi())                                                    \
        FAIL() << "mounted-volume test cannot run under CI: " << *qvexfat_why;      \
      else                                                                          \
        GTEST_SKIP() << "mounted-volume test skipped: " << *qvexfat_why;            \
    }                                                                               \
  } while (0)
