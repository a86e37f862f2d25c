#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// A device-mapper device of one target, made and removed through
// /dev/mapper/control's ioctls, as dmsetup would, so that a board with
// busybox alone needs only the kernel's modules. Its node is made in
// /dev/mapper by the campaign itself: there may be no udev to make it.
class DmDevice {
 public:
  // `name` is unique on the machine; the target covers `sectors` 512-byte
  // sectors from 0: "log-writes" with "/dev/loop1 /dev/loop2". Throws
  // ErrnoException, with the step that failed, and removes what it made.
  DmDevice(const std::string& name, uint64_t sectors, const std::string& target, const std::string& params);
  // Torn down early (an interrupt, a row abandoned): says so for the run.
  ~DmDevice();
  DmDevice(const DmDevice&) = delete;
  DmDevice& operator=(const DmDevice&) = delete;

  const std::string& Path() const { return m_path; }  // "/dev/mapper/qvexfat-1234-log"
  const std::string& Name() const { return m_name; }

  // A message to the target ("mark synced"). Throws ErrnoException.
  void Message(const std::string& text) const;
  // The target's status line, as dmsetup status prints it after the
  // sector range. Throws ErrnoException.
  std::string Status() const;
  // Removes the device once nothing holds it open, waiting a while for
  // that; "" once removed, else what is left.
  std::string Remove();

 private:
  std::string m_name;
  std::string m_path;
  bool m_made = false;
};

// The name of the device-mapper device a campaign sets up (its write
// logger), by the campaign's process id: "qvexfat-campaign-1234".
std::string CampaignDmName(pid_t pid);

// Whether the kernel has a device-mapper device of that name.
bool DmDeviceExists(const std::string& name);
// Removes the device of that name and its node; "" once removed, else why not.
std::string RemoveDmDevice(const std::string& name);
// Whether the kernel has the target type ("log-writes"), loading its module
// when it can; why not, else "".
std::string DmTargetMissing(const std::string& target);
