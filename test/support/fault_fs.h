#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "mounted_volume.h"  // InCi

namespace testsupport {

// How a faultfs mount behaves: the fault ("" for none, else a name such as
// "stale-extend" or "bad-chars=:"), the capacity and cluster size it reports
// and enforces, and for "lose-entry" the entry count at which it strikes.
struct FaultFsOptions {
  std::string fault;
  uint64_t size = 256ull << 20;
  uint32_t cluster = 4096;
  std::optional<uint32_t> lose_after;
};

// Why a faultfs mount is impossible here (not root, no /dev/fuse, no
// fusermount3), or nothing when it is possible.
std::optional<std::string> FuseUnavailableReason();

// faultfs running in the foreground on `backing` (created if missing),
// mounted at `mount_point`. The destructor unmounts and waits for it; its
// own messages go to "<mount_point>.log".
class FaultFs {
 public:
  FaultFs(const std::string& backing, const std::string& mount_point,
          const FaultFsOptions& options = {});
  ~FaultFs();
  FaultFs(const FaultFs&) = delete;
  FaultFs& operator=(const FaultFs&) = delete;

  const std::string& MountPoint() const { return m_mount_point; }
  const std::string& Backing() const { return m_backing; }
  // Unmounts now (idempotent); throws when that fails.
  void Unmount();

 private:
  std::string m_backing;
  std::string m_mount_point;
  pid_t m_pid = -1;
};

}  // namespace testsupport

// Skips the current test when faultfs cannot be mounted here, or fails it
// under CI.
#define QVEXFAT_REQUIRE_FUSE()                                                      \
  do {                                                                              \
    if (auto qvexfat_why = ::testsupport::FuseUnavailableReason()) {                \
      if (::testsupport::InCi())                                                    \
        FAIL() << "FUSE test cannot run under CI: " << *qvexfat_why;                \
      else                                                                          \
        GTEST_SKIP() << "FUSE test skipped: " << *qvexfat_why;                      \
    }                                                                               \
  } while (0)
