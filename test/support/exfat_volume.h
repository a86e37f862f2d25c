#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "mounted_volume.h"
#include "process.h"
#include "scratch.h"

namespace testsupport {

// A fresh mkfs.exfat image in this test's scratch directory, mounted through
// exfat-fuse while the object lives. It owns the test's ScratchDir (a second
// one would wipe the first), so extra files go to Scratch().
class ExfatVolume {
 public:
  ExfatVolume(uint64_t bytes, uint32_t cluster_bytes, bool read_only = false);

  const ScratchDir& Scratch() const { return m_scratch; }
  const std::string& Image() const { return m_image; }
  // The mount point, without a trailing "/".
  const std::string& Path() const { return m_mounted->MountPoint(); }
  // Where the volume tests work when given Path().
  std::string Runtests() const { return Path() + "/runtests/"; }
  // The built tool's volume mode on Path().
  ProcessResult Run(const std::string& action) const;
  void Unmount() { m_mounted->Unmount(); }
  // Unmounts and expects fsck.exfat to find the image clean.
  void ExpectCleanAfterUnmount();

 private:
  ScratchDir m_scratch;
  std::string m_image;
  std::optional<MountedVolume> m_mounted;
};

}  // namespace testsupport
