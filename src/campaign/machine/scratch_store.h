#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "campaign/machine/loop_device.h"
#include "platform/unique_fd.h"

// Where the rows' volumes live: an image file that the campaign made, or a
// scratch block device given to it. Each volume is a loop device over the
// store's first bytes, as many as the row needs.
class ScratchStore {
 public:
  // Makes an image of `size` bytes, allocated where the filesystem can;
  // an existing file is refused (ErrnoException EEXIST), and so is a
  // filesystem without room for it.
  static std::unique_ptr<ScratchStore> CreateImage(const std::string& path, uint64_t size);
  // Opens a block device exclusively, so that nothing mounts it meanwhile.
  static std::unique_ptr<ScratchStore> OpenDevice(const std::string& path);
  // Removes an image the campaign made, unless kept.
  ~ScratchStore();
  ScratchStore(const ScratchStore&) = delete;
  ScratchStore& operator=(const ScratchStore&) = delete;

  uint64_t Size() const { return m_size; }
  bool IsImage() const { return m_image; }
  const std::string& Path() const { return m_path; }
  void Keep() { m_keep = true; }

  // A loop device over the first `size` bytes; an image is emptied first,
  // so that no row sees what an earlier one left. On a device the loop
  // device bypasses the page cache, so that reads come from the medium.
  std::unique_ptr<LoopDevice> FreshVolume(uint64_t size);
  // A loop device over `size` bytes from `offset`, as they are: the
  // write log of a volume over the first bytes.
  std::unique_ptr<LoopDevice> Region(uint64_t offset, uint64_t size);
  // Drops a device's cached blocks before a read-back.
  void DropCaches() const;
  // What is wrong with the store itself, or "": the filesystem holding an
  // image has run out of room, so writes to the volume may have been lost
  // (the kernel says so only at a limited rate).
  std::string Trouble() const;

 private:
  ScratchStore(std::string path, UniqueFd fd, uint64_t size, bool image);
  // The image emptied and its blocks taken again.
  void Allocate();

  std::string m_path;
  UniqueFd m_fd;
  uint64_t m_size;
  bool m_image;
  bool m_keep = false;
};

// "384M", "1G", "4K", "2T": digits and a unit; 0 when the text is not that.
uint64_t ParseSize(const std::string& text);
// The size in the largest unit that divides it: "384M".
std::string FormatSize(uint64_t bytes);
