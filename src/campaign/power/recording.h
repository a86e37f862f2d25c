#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "campaign/power/workload.h"
#include "campaign/power/write_log.h"
#include "campaign/trial/context.h"
#include "campaign/trial/golden_volume.h"
#include "campaign/trial/observation.h"
#include "campaign/trial/rows.h"
#include "campaign/trial/volume_under_test.h"
#include "platform/unique_fd.h"

// The workload as the medium saw it: the volume before it began, and every
// write, flush, FUA and mark that dm-log-writes logged while it ran.
struct Recording {
  GoldenVolume base;
  UniqueFd log;  // a copy of the log in memory: the store's volume is made afresh for each replay
  uint64_t log_bytes = 0;
  WriteLog entries;
  std::string logger;  // "dm-log-writes, 812 entries, 14 flushes, 3 FUA, 12 marks"
  std::string stop;    // why the workload could not be logged, once that was tried
  std::string missing;  // what the machine lacks for a log: the rows are skipped

  bool Made() const { return log.IsOpen(); }
};

// The store's room for the log, past the volume: the workload writes a
// few MiB, and each of its writes and marks takes a sector more.
constexpr uint64_t kWriteLogBytes = 64 << 20;

// Makes the base volume on `volume` (mkfs.exfat, the known tree, a clean
// check), then runs the workload on it through a dm-log-writes device that
// logs to a loop device over the store past the volume, with a mark after
// each of its syncs and one after the unmount. What it did and saw goes to
// `step`; returns what stops the rows ("" when `recording` is made).
std::string RecordWorkload(const Context& context, const Row& row, const KnownTree& tree, const Workload& workload,
                           VolumeUnderTest& volume, StepObservation& step, Recording& recording);

