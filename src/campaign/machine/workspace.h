#pragma once

#include <string>
#include <vector>

#include "campaign/machine/leftovers.h"

// The campaign's own directory ($TMPDIR/qvexfat-campaign.XXXXXX) with the
// mount point of its volumes. It records which process owns it and which
// store that process works on, so that a later run can clear what a
// killed campaign left.
class Workspace {
 public:
  // `image` is the image made for this run ("" for a device), removed by
  // a later run that clears up after this one unless `keep`.
  Workspace(const std::string& store, bool image, bool keep);
  // Removes the directory; Remove() says whether it could.
  ~Workspace() { Remove(); }
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  const std::string& Directory() const { return m_directory; }
  std::string MountPoint() const { return m_directory + "/mnt"; }
  // The directory gone; "" when it is, else what stays.
  std::string Remove();

 private:
  std::string m_directory;
};

// Clears what campaigns killed without a chance to undo anything (SIGKILL,
// a crash) left in the temporary directory: their mounts, loop devices,
// images and directories. One line per dead campaign, saying what was
// cleared: "campaign 1234 ended without clearing up: unmounted ...".
std::vector<std::string> ClearAbandonedWorkspaces();
