#pragma once

#include <cstddef>
#include <string>

#include "campaign/power/replay_points.h"
#include "campaign/power/write_log.h"
#include "campaign/trial/golden_volume.h"

// The volume as a power cut at a point of a log leaves it: the base, and
// the log's first `point.applied` entries replayed onto it. Throws
// ErrnoException and std::runtime_error.
void CutVolume(const GoldenVolume& base, const WriteLog& log, int log_fd, const std::string& device,
               const ReplayPoint& point);

// "point: entry 812 MARK after append"
std::string PointLine(const ReplayPoint& point);

// Whether the volume's VolumeDirty flag is "set" or "clear" (a driver sets
// it while the volume is mounted), or "unreadable".
std::string VolumeDirty(const std::string& device);
