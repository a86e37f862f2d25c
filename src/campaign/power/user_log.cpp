#include "campaign/power/user_log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include <fmt/format.h>

#include "campaign/machine/error_name.h"

namespace {

// A base larger than this is no card's a board would carry.
constexpr uint64_t kLargestBase = uint64_t{1} << 40;
constexpr uint64_t k4K = 4096;

// A mark as a row's name takes only what --only can name.
bool Nameable(const std::string& mark) {
  return !mark.empty() && mark.size() <= 64 &&
         mark.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") == std::string::npos;
}

}  // namespace

std::vector<Row> ReplayRows(const std::string& log_path, const std::string& base_path, size_t most, UserLog& log,
                            std::string& error) {
  std::vector<Row> rows;
  try {
    log.base = std::make_unique<UserImage>(base_path);
    log.base_bytes = log.base->Measure(kLargestBase);
  } catch (const std::exception& e) {
    error = "--base " + base_path + ": " + e.what();
    return rows;
  }
  if (log.base_bytes == 0 || log.base_bytes > kLargestBase) {
    error = "--base " + base_path + (log.base_bytes == 0 ? ": the image is empty" : ": the image is larger than 1T");
    return rows;
  }
  log.path = log_path;
  log.fd = UniqueFd(open(log_path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  if (!log.fd.IsOpen() || fstat(log.fd.Get(), &st) != 0) {
    error = "--replay " + log_path + ": " + ErrorName(errno);
    return rows;
  }
  try {
    log.entries = ReadWriteLog(log.fd.Get(), static_cast<uint64_t>(st.st_size), log.base_bytes);
  } catch (const std::exception& e) {
    error = "--replay " + log_path + ": " + e.what();
    return rows;
  }
  log.points = DurablePoints(log.entries, 0, most);
  if (log.points.empty()) error = "--replay " + log_path + ": the log has no flush, FUA or mark";
  for (size_t i = 0; i < log.points.size(); ++i) {
    const ReplayPoint& point = log.points[i];
    const std::string& mark = log.entries.entries[point.entry].mark;
    std::string name = "replay." + (point.kind == ReplayPoint::kMark && Nameable(mark) ? mark : fmt::format("entry-{}", point.entry));
    for (const Row& earlier : rows)
      if (earlier.name == name) name = fmt::format("replay.entry-{}", point.entry);  // a mark set twice
    Row row{name, false, (log.base_bytes + k4K - 1) / k4K * k4K, k4K, "", nullptr};
    row.replayed = &log;
    row.point = i;
    rows.push_back(row);
  }
  return rows;
}
