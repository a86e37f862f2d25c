#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "campaign/machine/kernel_log.h"
#include "campaign/machine/mounts.h"
#include "campaign/machine/scratch_store.h"
#include "campaign/trial/golden_volume.h"

struct Recording;

// How long the campaign waits for each kind of program before it calls the
// step TIMEOUT and stops the program.
struct Limits {
  std::chrono::seconds checker{600};
  std::chrono::seconds mount{300};
  std::chrono::seconds test{3600};  // a fill of a slow card takes its time
};

// The power-cut rows' bounds by default (--points): each point is a
// replay, a check, a mount and a repair.
constexpr size_t kDurablePoints = 32;
constexpr size_t kTornPoints = 64;

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
  Recording* recording = nullptr;  // the power-cut rows' log, made by the first of them
  size_t durable_points = kDurablePoints;  // the most flush points the power-cut rows try
  size_t torn_points = kTornPoints;        // the most the torn row tries
};
