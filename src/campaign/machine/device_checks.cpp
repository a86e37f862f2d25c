#include "campaign/machine/device_checks.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"

namespace {

// How often a device found open elsewhere is looked at again.
constexpr int kLooks = 4;

struct BlockDevice {
  dev_t number;
  std::string name;  // "sdb2", as in /dev and sysfs
};

std::string ReadLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) ? resolved : path;
}

std::vector<std::string> DirectoryNames(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (const dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    closedir(dir);
  }
  return names;
}

// The device and its partitions, from sysfs.
std::vector<BlockDevice> DeviceAndPartitions(dev_t number) {
  const std::string sysfs =
      RealPath("/sys/dev/block/" + std::to_string(major(number)) + ":" + std::to_string(minor(number)));
  std::vector<BlockDevice> devices{{number, sysfs.substr(sysfs.rfind('/') + 1)}};
  for (const std::string& entry : DirectoryNames(sysfs)) {
    if (access((sysfs + "/" + entry + "/partition").c_str(), F_OK) != 0) continue;
    unsigned major_number = 0, minor_number = 0;
    if (sscanf(ReadLine(sysfs + "/" + entry + "/dev").c_str(), "%u:%u", &major_number, &minor_number) == 2)
      devices.push_back({makedev(major_number, minor_number), entry});
  }
  return devices;
}

const BlockDevice* Find(const std::vector<BlockDevice>& devices, dev_t number) {
  for (const BlockDevice& device : devices)
    if (device.number == number) return &device;
  return nullptr;
}

const BlockDevice* FindByPath(const std::vector<BlockDevice>& devices, const std::string& path) {
  struct stat info {};
  if (path.empty() || path[0] != '/' || stat(path.c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) return nullptr;
  return Find(devices, info.st_rdev);
}

std::string Mounted(const std::vector<BlockDevice>& devices) {
  std::ifstream mountinfo("/proc/self/mountinfo");
  for (std::string line; std::getline(mountinfo, line);) {
    // "id parent major:minor root mount-point options ... - type source ..."
    std::istringstream fields(line);
    std::string id, parent, numbers, root, mount_point, word, type, source;
    fields >> id >> parent >> numbers >> root >> mount_point;
    while (fields >> word && word != "-") {
    }
    fields >> type >> source;
    unsigned major_number = 0, minor_number = 0;
    const BlockDevice* device = nullptr;
    if (sscanf(numbers.c_str(), "%u:%u", &major_number, &minor_number) == 2)
      device = Find(devices, makedev(major_number, minor_number));
    if (!device) device = FindByPath(devices, source);
    if (device) return "/dev/" + device->name + " is mounted on " + mount_point;
  }
  return "";
}

std::string Swap(const std::vector<BlockDevice>& devices) {
  std::ifstream swaps("/proc/swaps");
  std::string line;
  std::getline(swaps, line);  // the heading
  while (std::getline(swaps, line)) {
    if (const BlockDevice* device = FindByPath(devices, line.substr(0, line.find_first_of(" \t"))))
      return "/dev/" + device->name + " is in use as swap";
  }
  return "";
}

std::string Held(const std::vector<BlockDevice>& devices) {
  for (const BlockDevice& device : devices) {
    const std::vector<std::string> holders = DirectoryNames("/sys/class/block/" + device.name + "/holders");
    if (!holders.empty()) return "/dev/" + device.name + " is held by " + holders.front();
  }
  for (const std::string& loop : DirectoryNames("/sys/block")) {
    if (loop.rfind("loop", 0) != 0) continue;
    if (const BlockDevice* device = FindByPath(devices, ReadLine("/sys/block/" + loop + "/loop/backing_file")))
      return "/dev/" + device->name + " backs /dev/" + loop;
  }
  return "";
}

std::string OpenElsewhere(const std::vector<BlockDevice>& devices) {
  const std::string self = std::to_string(getpid());
  for (const std::string& pid : DirectoryNames("/proc")) {
    if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self) continue;
    const std::string fds = "/proc/" + pid + "/fd";
    for (const std::string& fd : DirectoryNames(fds)) {
      struct stat info {};
      if (stat((fds + "/" + fd).c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) continue;
      if (const BlockDevice* device = Find(devices, info.st_rdev))
        return "/dev/" + device->name + " is open in process " + pid + " (" + ReadLine("/proc/" + pid + "/comm") + ")";
    }
  }
  return "";
}

// What the device's first sectors say it holds: a GPT ("EFI PART" in
// sector 1) or an MBR with a partition in it (an exFAT boot sector has the
// same signature, and its own name at byte 3); "" for neither.
std::string PartitionTable(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  unsigned char sectors[1024] = {};
  if (!fd.IsOpen() || pread(fd.Get(), sectors, sizeof sectors, 0) != static_cast<ssize_t>(sizeof sectors)) return "";
  if (memcmp(sectors + 512, "EFI PART", 8) == 0) return "a GPT partition table";
  if (sectors[510] != 0x55 || sectors[511] != 0xAA || memcmp(sectors + 3, "EXFAT   ", 8) == 0) return "";
  for (int entry = 0; entry < 4; ++entry)
    if (sectors[446 + 16 * entry + 4] != 0) return "an MBR partition table";
  return "";
}

}  // namespace

std::string WholeDiskRefusal(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) return "";
  const std::vector<BlockDevice> devices = DeviceAndPartitions(info.st_rdev);
  if (devices.size() > 1)
    return path + " has partitions (" + devices[1].name + (devices.size() > 2 ? ", ..." : "") +
           "): name one, or confirm the whole disk with --whole-disk";
  const std::string table = PartitionTable(path);
  if (!table.empty()) return path + " holds " + table + ": name a partition, or confirm the whole disk with --whole-disk";
  return "";
}

std::string DeviceRefusal(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return path + ": " + strerror(errno);
  if (!S_ISBLK(info.st_mode)) return path + " is not a block device";
  const std::vector<BlockDevice> devices = DeviceAndPartitions(info.st_rdev);
  for (const auto& check : {Mounted, Swap, Held}) {
    std::string reason = check(devices);
    if (!reason.empty()) return reason;
  }
  // A program that probes devices (udev's blkid, a losetup listing them)
  // holds one open for a moment: only a holder still there a second later
  // is one.
  std::string reason = OpenElsewhere(devices);
  for (int look = 0; look < kLooks && !reason.empty(); ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    reason = OpenElsewhere(devices);
  }
  return reason;
}
