#pragma once

#include <cstdint>
#include <string>

#include "platform/unique_fd.h"

// A loop device over the first `size` bytes of an image file or a block
// device, set up through /dev/loop-control. It detaches itself once the
// last user closes it (autoclear): when this object goes, or later, when a
// mount or a task stuck in a crashed driver lets go of it.
class LoopDevice {
 public:
  // Throws ErrnoException when no loop device can be set up.
  LoopDevice(int backing_fd, uint64_t size);
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  const std::string& Path() const { return m_path; }  // "/dev/loop0"
  const std::string& Name() const { return m_name; }  // "loop0", as the kernel log says

 private:
  UniqueFd m_fd;
  std::string m_path;
  std::string m_name;
};
