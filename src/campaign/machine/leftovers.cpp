#include "campaign/machine/leftovers.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "campaign/machine/device_mapper.h"
#include "campaign/machine/loop_device.h"
#include "platform/unique_fd.h"

namespace {

Teardown g_notes;

// mountinfo writes a blank, tab, line end and backslash in a path as \040,
// \011, \012 and \134.
std::string Unescape(const std::string& field) {
  std::string path;
  for (size_t i = 0; i < field.size(); ++i) {
    const bool escape = field[i] == '\\' && i + 3 < field.size() &&
                        field.substr(i + 1, 3).find_first_not_of("01234567") == std::string::npos;
    if (escape) {
      path += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      path += field[i];
    }
  }
  return path;
}

std::string Joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

}  // namespace

void Teardown::Add(const Teardown& other) {
  undone.insert(undone.end(), other.undone.begin(), other.undone.end());
  left.insert(left.end(), other.left.begin(), other.left.end());
}

std::string Teardown::Describe() const {
  std::string text = Joined(undone);
  if (!left.empty()) text += (text.empty() ? "" : "; ") + std::string("could not undo: ") + Joined(left);
  return text;
}

void NoteUndone(const std::string& what) { g_notes.undone.push_back(what); }
void NoteLeft(const std::string& what) { g_notes.left.push_back(what); }
Teardown TakeTeardownNotes() { return std::exchange(g_notes, Teardown{}); }

std::vector<std::string> MountsBelow(const std::string& directory) {
  std::vector<std::string> mounts;
  std::ifstream mountinfo("/proc/self/mountinfo");
  for (std::string line; std::getline(mountinfo, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, point;
    fields >> id >> parent >> device >> root >> point;
    point = Unescape(point);
    if (point.rfind(directory + "/", 0) == 0 || point == directory) mounts.push_back(point);
  }
  // Deepest first; one place mounted twice is unmounted twice.
  std::stable_sort(mounts.begin(), mounts.end(),
                   [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
  return mounts;
}

std::vector<std::string> LoopDevicesOver(const std::string& path) {
  std::vector<std::string> devices;
  DIR* block = opendir("/sys/block");
  if (!block) return devices;
  while (const dirent* entry = readdir(block)) {
    if (strncmp(entry->d_name, "loop", 4) != 0) continue;
    std::ifstream file(std::string("/sys/block/") + entry->d_name + "/loop/backing_file");
    std::string backing;
    if (!std::getline(file, backing)) continue;
    if (backing == path || backing == path + " (deleted)") devices.push_back(std::string("/dev/") + entry->d_name);
  }
  closedir(block);
  std::sort(devices.begin(), devices.end());
  return devices;
}

Teardown Sweep(const std::string& directory, const std::string& store, pid_t owner) {
  Teardown teardown;
  // Listed before the unmounts, which let a FUSE daemon end and so detach
  // its device by itself.
  const std::vector<std::string> devices = LoopDevicesOver(store);
  for (const std::string& point : MountsBelow(directory)) {
    if (umount2(point.c_str(), MNT_DETACH) == 0) teardown.undone.push_back("unmounted " + point);
    else teardown.left.push_back(point + " stays mounted (" + strerror(errno) + ")");
  }
  // It holds loop devices over the store.
  if (const std::string logger = CampaignDmName(owner); DmDeviceExists(logger)) {
    if (const std::string left = RemoveDmDevice(logger); left.empty()) teardown.undone.push_back("removed /dev/mapper/" + logger);
    else teardown.left.push_back(left);
  }
  for (const std::string& device : devices) {
    // Detached now when unused, else as soon as its last user lets go.
    UniqueFd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.IsOpen()) ioctl(fd.Get(), LOOP_CLR_FD, 0);
    fd.Reset();
    if (AwaitDetached(device.substr(5))) teardown.undone.push_back("detached " + device);
    else teardown.left.push_back(device + " stays attached (still in use)");
  }
  return teardown;
}
