#include "campaign/power/cut_volume.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <fmt/format.h>

#include "campaign/fields/field_table.h"
#include "campaign/power/replay.h"
#include "exfat/little_endian.h"
#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

constexpr uint64_t kVolumeDirtyBit = 2;  // of VolumeFlags

const char* KindName(ReplayPoint::Kind kind) {
  switch (kind) {
    case ReplayPoint::kFlush: return "FLUSH";
    case ReplayPoint::kFua: return "FUA";
    case ReplayPoint::kMark: return "MARK";
    case ReplayPoint::kTorn: return "TORN";
  }
  return "?";
}

}  // namespace

void CutVolume(const GoldenVolume& base, const WriteLog& log, int log_fd, const std::string& device,
               const ReplayPoint& point) {
  base.Restore(device);
  const UniqueFd fd(open(device.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.IsOpen()) throw ErrnoException(errno, device);
  Replay(log, log_fd, fd.Get(), 0, point.applied);
  if (fsync(fd.Get()) != 0) throw ErrnoException(errno, device);
}

std::string PointLine(const ReplayPoint& point) {
  return fmt::format("point: entry {} {} after {}", point.entry, KindName(point.kind),
                     point.after_mark.empty() ? "the start" : point.after_mark);
}

std::string VolumeDirty(const std::string& device) {
  const UniqueFd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  uint8_t flags[2];
  const uint64_t at = FieldNamed("boot", "VolumeFlags").offset;
  if (!fd.IsOpen() || pread(fd.Get(), flags, sizeof flags, static_cast<off_t>(at)) != sizeof flags) return "unreadable";
  return (ReadLe16(flags) & kVolumeDirtyBit) ? "set" : "clear";
}
