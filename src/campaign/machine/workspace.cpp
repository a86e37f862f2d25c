#include "campaign/machine/workspace.h"

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "platform/errno_exception.h"

namespace {

constexpr const char* kPrefix = "qvexfat-campaign.";
constexpr const char* kOwnerFile = "/owner";

// The path made absolute, as /proc/self/mountinfo and a loop device's
// backing file name them.
std::string Absolute(const std::string& path) {
  char* absolute = realpath(path.c_str(), nullptr);
  if (!absolute) throw ErrnoException(errno, path);
  const std::string resolved = absolute;
  free(absolute);
  return resolved;
}

std::string TemporaryDirectory() {
  const char* temporary = getenv("TMPDIR");
  return Absolute(temporary && *temporary ? temporary : "/tmp");
}

// What the owner file says: "pid 1234", "store /path", "image yes",
// "keep no", one a line.
struct Owner {
  pid_t pid = 0;
  std::string store;
  bool image = false;
  bool keep = false;
};

Owner ReadOwner(const std::string& directory) {
  Owner owner;
  std::ifstream file(directory + kOwnerFile);
  for (std::string key, value; file >> key && std::getline(file >> std::ws, value);) {
    if (key == "pid") owner.pid = static_cast<pid_t>(atol(value.c_str()));
    else if (key == "store") owner.store = value;
    else if (key == "image") owner.image = value == "yes";
    else if (key == "keep") owner.keep = value == "yes";
  }
  return owner;
}

// Whether a campaign runs as `pid`; a pid reused by another program is no
// campaign.
bool CampaignRuns(pid_t pid) {
  if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) return false;
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return std::string("qvexfat-campaign").rfind(name, 0) == 0 && !name.empty();  // comm is cut at 15 bytes
}

std::string RemoveDirectory(const std::string& directory) {
  unlink((directory + kOwnerFile).c_str());
  rmdir((directory + "/mnt").c_str());
  if (rmdir(directory.c_str()) == 0 || errno == ENOENT) return "";
  return directory + " stays (" + strerror(errno) + ")";
}

}  // namespace

Workspace::Workspace(const std::string& store, bool image, bool keep) {
  std::string pattern = TemporaryDirectory() + "/" + kPrefix + "XXXXXX";
  if (!mkdtemp(pattern.data())) throw ErrnoException(errno, pattern);
  m_directory = pattern;
  if (mkdir(MountPoint().c_str(), 0755) != 0) throw ErrnoException(errno, MountPoint());
  std::ofstream owner(m_directory + kOwnerFile);
  owner << "pid " << getpid() << "\nstore " << Absolute(store) << "\nimage " << (image ? "yes" : "no") << "\nkeep "
        << (keep ? "yes" : "no") << "\n";
  if (!owner.flush()) throw ErrnoException(errno, m_directory + kOwnerFile);
}

std::string Workspace::Remove() {
  if (m_directory.empty()) return "";
  return RemoveDirectory(std::exchange(m_directory, ""));
}

std::vector<std::string> ClearAbandonedWorkspaces() {
  std::vector<std::string> said;
  const std::string temporary = TemporaryDirectory();
  DIR* listing = opendir(temporary.c_str());
  if (!listing) return said;
  std::vector<std::string> directories;
  while (const dirent* entry = readdir(listing))
    if (strncmp(entry->d_name, kPrefix, strlen(kPrefix)) == 0) directories.push_back(temporary + "/" + entry->d_name);
  closedir(listing);
  for (const std::string& directory : directories) {
    const Owner owner = ReadOwner(directory);
    if (owner.pid == 0 || owner.pid == getpid() || CampaignRuns(owner.pid)) continue;
    Teardown teardown = Sweep(directory, owner.store, owner.pid);
    if (owner.image && !owner.keep && unlink(owner.store.c_str()) == 0) teardown.undone.push_back("removed " + owner.store);
    if (const std::string left = RemoveDirectory(directory); left.empty())
      teardown.undone.push_back("removed " + directory);
    else
      teardown.left.push_back(left);
    said.push_back("campaign " + std::to_string(owner.pid) + " ended without clearing up: " + teardown.Describe());
  }
  return said;
}
