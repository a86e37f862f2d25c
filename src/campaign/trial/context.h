#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "campaign/machine/kernel_log.h"
#include "campaign/machine/mounts.h"
#include "campaign/machine/scratch_store.h"
#include "campaign/trial/golden_volume.h"

// How long the campaign waits for each kind of program before it calls the
// step TIMEOUT and stops the program.
struct Limits {
  std::chrono::seconds checker{600};
  std::chrono::seconds mount{300};
  std::chrono::seconds test{3600};  // a fill of a slow card takes its time
};

// What every row works with.
struct Context {
  Driver driver;
  std::string tool;     // qvexfat-test
  std::string checker;  // fsck.exfat
  Limits limits;
  std::string mount_point;
  ScratchStore& store;
  KernelLog& kernel_log;
  uint32_t seed;  // the run's: the rows' file contents follow from it
  bool keep_damaged = false;  // each damage row's volume copied as it is once damaged
  GoldenVolume* golden = nullptr;  // the field rows' volume, made by the first of them
};
