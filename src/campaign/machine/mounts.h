#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "campaign/machine/child.h"

// The exFAT driver the campaign tries: Linux's own, or exfat-fuse.
enum class Driver { kKernel, kFuse };

// A volume mounted on a directory, with the FUSE daemon that serves it.
// What is still mounted when this goes is detached lazily, so that an
// interrupted or failed row leaves no mount.
class MountedVolume {
 public:
  MountedVolume(std::string directory, std::vector<pid_t> daemons)
      : m_directory(std::move(directory)), m_daemons(std::move(daemons)) {}
  ~MountedVolume();
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  // Whether the volume is read-only now: a driver may turn it so when it
  // meets damage.
  bool IsReadOnly(std::chrono::seconds limit) const;
  // How the daemons that ended since the last call ended: a daemon that
  // dies while it serves the volume is a driver that crashed.
  std::vector<Ending> DaemonsEnded();
  // Unmounts and waits for the FUSE daemon to end. Returns what went wrong
  // ("" when nothing did); how the daemons ended joins `daemons`.
  std::string Unmount(std::chrono::seconds limit, std::vector<Ending>& daemons);

 private:
  std::string m_directory;
  std::vector<pid_t> m_daemons;
  bool m_mounted = true;
};

struct MountAttempt {
  std::unique_ptr<MountedVolume> volume;  // null when the driver refused it
  bool read_only = false;
  Ending helper;        // how the mount call, or exfat-fuse's helper, ended
  std::string refusal;  // "EIO", "exit 1"
  std::vector<std::string> driver_lines;  // "mount.exfat-fuse: <what it printed>"

  // "taken", "taken read-only", "refused (EIO)", "timed out after 300 s".
  std::string Describe() const;
};

// Mounts `device` on `directory` read-write, as an engineer would with the
// driver's defaults.
MountAttempt Mount(Driver driver, const std::string& device, const std::string& directory,
                   std::chrono::seconds limit);
