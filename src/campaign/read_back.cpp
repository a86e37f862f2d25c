#include "campaign/read_back.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <map>

#include "campaign/child_process.h"
#include "platform/unique_fd.h"
#include "tests/data_block.h"

namespace {

constexpr size_t kReadBytes = 64 * 1024;

std::string ErrorName(int error) { return strerrorname_np(error) ? strerrorname_np(error) : std::to_string(error); }

// In the reading process: "listed error bytes-read first-difference".
std::string Read(const std::string& root, const TreeFile& file) {
  const std::string path = root + "/" + file.path;
  const size_t slash = path.rfind('/');
  const std::string name = path.substr(slash + 1);
  const auto said = [](bool listed, int error, uint64_t bytes, int64_t difference) {
    return std::to_string(listed) + " " + std::to_string(error) + " " + std::to_string(bytes) + " " +
           std::to_string(difference);
  };
  DIR* directory = opendir(path.substr(0, slash).c_str());
  if (directory == nullptr) return said(false, errno, 0, -1);
  bool listed = false;
  errno = 0;
  while (const dirent* entry = readdir(directory)) listed = listed || name == entry->d_name;
  const int listing_error = errno;
  closedir(directory);
  if (!listed) return said(false, listing_error, 0, -1);

  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) return said(true, errno, 0, -1);
  const std::vector<unsigned char> block = MakeDataBlock(file.seed, kPeriod);
  std::vector<unsigned char> buffer(kReadBytes);
  uint64_t at = 0;
  int64_t difference = -1;
  for (;;) {
    const ssize_t n = read(fd.Get(), buffer.data(), buffer.size());
    if (n < 0) return said(true, errno, at, difference);
    if (n == 0) return said(true, 0, at, difference);
    for (ssize_t i = 0; i < n && difference < 0; ++i)
      if (buffer[i] != block[(at + i) % kPeriod]) difference = static_cast<int64_t>(at + i);
    at += static_cast<uint64_t>(n);
  }
}

}  // namespace

FileReading ReadBack(const std::string& root, const TreeFile& file, std::chrono::seconds limit) {
  const ChildOutcome outcome = RunIsolated(limit, [&] { return Read(root, file); });
  FileReading reading;
  int listed = 0;
  long long difference = -1;
  unsigned long long bytes = 0;
  if (!outcome.Succeeded() ||
      sscanf(outcome.output.c_str(), "%d %d %llu %lld", &listed, &reading.error, &bytes, &difference) != 4) {
    reading.failure = outcome.timed_out ? "timed out" : "the reading process failed: " + outcome.Describe();
    return reading;
  }
  reading.listed = listed != 0;
  reading.bytes_read = bytes;
  if (difference >= 0) reading.first_difference = static_cast<uint64_t>(difference);
  return reading;
}

FileVerdict JudgeRead(const TreeFile& file, const FileReading& reading) {
  if (!reading.failure.empty())
    return {reading.failure == "timed out" ? "timed out" : "read error", reading.failure, false,
            reading.failure == "timed out"};
  if (reading.error == ENOENT || (!reading.listed && reading.error == 0)) return {"missing", "", false, false};
  if (reading.error != 0) return {"read error", ErrorName(reading.error), false, false};
  if (reading.first_difference)
    return {"differs", "at byte " + std::to_string(*reading.first_difference), true, false};
  if (reading.bytes_read != file.size)
    return {"differs", std::to_string(reading.bytes_read) + " bytes of " + std::to_string(file.size), true, false};
  return {"same", "", false, false};
}

FileVerdict JudgeRepaired(const TreeFile& file, const FileReading& reading) {
  FileVerdict verdict = JudgeRead(file, reading);
  if (verdict.state == "missing") return {"lost", "", false, false};
  if (verdict.state == "same") return {"intact", "", false, false};
  if (verdict.state != "differs" || reading.first_difference || reading.bytes_read > file.size) return verdict;
  return {"cut short", std::to_string(reading.bytes_read) + " of " + std::to_string(file.size) + " bytes kept", false,
          false};
}

std::string Summarize(const std::vector<TreeFile>& files, const std::vector<FileVerdict>& verdicts) {
  // States in the order they are told, the good ones first.
  static const char* const kOrder[] = {"same",   "intact", "cut short", "differs", "read error",
                                       "missing", "lost",  "timed out"};
  std::map<std::string, std::vector<std::string>> by_state;
  for (size_t i = 0; i < files.size(); ++i) by_state[verdicts[i].state].push_back(files[i].label);
  std::string summary;
  for (const char* state : kOrder) {
    const auto found = by_state.find(state);
    if (found == by_state.end()) continue;
    if (!summary.empty()) summary += "; ";
    if (found->first == "same" || found->first == "intact") {
      summary += std::to_string(found->second.size()) + " " + state;
      continue;
    }
    summary += std::string(state) + ": ";
    for (size_t i = 0; i < found->second.size(); ++i) summary += (i ? ", " : "") + found->second[i];
  }
  return summary;
}
