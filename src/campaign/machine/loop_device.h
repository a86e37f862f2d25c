#pragma once

#include <cstdint>
#include <string>

#include "platform/unique_fd.h"

// A loop device over the first `size` bytes of an image file or a block
// device, set up through /dev/loop-control. It detaches itself once the
// last user closes it (autoclear): when this object lets go, or later,
// when a mount or a task stuck in a crashed driver does.
class LoopDevice {
 public:
  // With `direct`, reads and writes bypass the backing device's page
  // cache, so that what is read back comes from the medium. From `offset`
  // on, when given. Throws ErrnoException when no loop device can be set up.
  LoopDevice(int backing_fd, uint64_t size, bool direct, uint64_t offset = 0);
  // Torn down early (an interrupt, a row abandoned): says so for the run.
  ~LoopDevice();
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  const std::string& Path() const { return m_path; }  // "/dev/loop0"
  const std::string& Name() const { return m_name; }  // "loop0", as the kernel log says

  // Drops the device's cached blocks, so that the next reads go below it.
  void DropCaches() const;
  // Closes the device and waits a while for the kernel to detach it (a
  // FUSE daemon may still hold it for a moment). "" once it is detached,
  // else what is left.
  std::string Release();

 private:
  UniqueFd m_fd;
  std::string m_path;
  std::string m_name;
};

// Waits up to ten seconds for the kernel to detach a loop device ("loop3");
// true once it has.
bool AwaitDetached(const std::string& name);
