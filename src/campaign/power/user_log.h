#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "campaign/machine/user_image.h"
#include "campaign/power/replay_points.h"
#include "campaign/power/write_log.h"
#include "campaign/trial/golden_volume.h"
#include "campaign/trial/rows.h"
#include "platform/unique_fd.h"

// A write log a user brings (--replay), recorded elsewhere: with dmsetup's
// log-writes target on their own board, or QEMU's blklogwrites driver under
// their own VM, over the volume that --base holds as it was when logging
// began.
struct UserLog {
  std::string path;
  UniqueFd fd;
  WriteLog entries;
  std::vector<ReplayPoint> points;  // its flush, FUA and mark points
  std::unique_ptr<UserImage> base;
  uint64_t base_bytes = 0;
  GoldenVolume base_volume;  // the base as the first row copied it, restored for the others
};

// Reads the log at `log_path` whole (every field checked against the log's
// and the base's size) and measures the base at `base_path`; returns a row
// for each of its durable points, at most `most`: "replay.<mark>" where a
// mark names it ("replay.entry-<n>" where none does, or the mark is no
// row's name). In `error`, why the log or the base cannot be taken, with
// the entry it fails at.
std::vector<Row> ReplayRows(const std::string& log_path, const std::string& base_path, size_t most, UserLog& log,
                            std::string& error);
