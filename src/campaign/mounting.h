#pragma once

#include <memory>
#include <string>
#include <vector>

// The exFAT driver the campaign tries: Linux's own, or exfat-fuse.
enum class Driver { kKernel, kFuse };

// A volume mounted on a directory. What is still mounted when this goes is
// detached lazily, so that an interrupted or failed row leaves no mount.
class MountedVolume {
 public:
  MountedVolume(Driver driver, std::string directory) : m_driver(driver), m_directory(std::move(directory)) {}
  ~MountedVolume();
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  const std::string& Directory() const { return m_directory; }
  // Whether the volume is read-only now: a driver may turn it so when it
  // meets damage.
  bool IsReadOnly() const;
  // Unmounts and waits for a FUSE daemon to finish. "" when all went well,
  // else what did not ("busy, detached lazily").
  std::string Unmount();

 private:
  Driver m_driver;
  std::string m_directory;
  bool m_mounted = true;
};

struct MountAttempt {
  std::unique_ptr<MountedVolume> volume;  // null when the driver refused it
  bool read_only = false;
  bool timed_out = false;
  std::string refusal;  // "EIO", "exit 1"
  std::vector<std::string> driver_lines;  // "mount.exfat-fuse: <what it printed>"

  // "taken", "taken read-only", "refused (EIO)".
  std::string Describe() const;
};

// Mounts `device` on `directory` read-write, as an engineer would with the
// driver's defaults.
MountAttempt Mount(Driver driver, const std::string& device, const std::string& directory);
