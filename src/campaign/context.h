#pragma once

#include <string>
#include <vector>

#include "campaign/kernel_log.h"
#include "campaign/mounting.h"
#include "campaign/progress.h"
#include "campaign/scratch_store.h"

// What every row works with.
struct Context {
  Driver driver;
  std::string tool;     // qvexfat-test
  std::string checker;  // fsck.exfat
  std::string mount_point;
  ScratchStore& store;
  KernelLog& kernel_log;
  Progress& progress;
};

// "volume: 32M with 4K clusters, on /dev/loop0"
std::string VolumeLine(uint64_t bytes, uint64_t cluster_bytes, const std::string& device);
// The last line of a program's output that says something: a test's last
// line before "Test failure", mkfs.exfat's complaint.
std::string LastWord(const std::vector<std::string>& lines);
