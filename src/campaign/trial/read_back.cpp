#include "campaign/trial/read_back.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <map>

#include "campaign/machine/error_name.h"
#include "platform/unique_fd.h"
#include "tests/data_block.h"

namespace {

constexpr size_t kReadBytes = 64 * 1024;

bool AfterRepair(Expect expect) {
  return expect == Expect::kUntouched || expect == Expect::kHit || expect == Expect::kReadable;
}

// In the reading process.
FileReading Read(const std::string& root, const TreeFile& file) {
  FileReading reading;
  const std::string path = root + "/" + file.path;
  const size_t slash = path.rfind('/');
  const std::string name = path.substr(slash + 1);
  DIR* directory = opendir(path.substr(0, slash).c_str());
  if (directory == nullptr) {
    reading.error = errno;
    return reading;
  }
  errno = 0;
  while (const dirent* entry = readdir(directory)) reading.listed = reading.listed || name == entry->d_name;
  reading.error = errno;
  closedir(directory);
  if (!reading.listed) return reading;

  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.IsOpen()) {
    reading.error = errno;
    return reading;
  }
  const std::vector<unsigned char> block = MakeDataBlock(file.seed, kPeriod);
  std::vector<unsigned char> buffer(kReadBytes);
  for (;;) {
    const ssize_t n = read(fd.Get(), buffer.data(), buffer.size());
    if (n < 0) reading.error = errno;
    if (n <= 0) return reading;
    for (ssize_t i = 0; i < n && !reading.differs; ++i) {
      if (buffer[i] != block[(reading.bytes_read + i) % kPeriod]) {
        reading.differs = true;
        reading.first_difference = reading.bytes_read + static_cast<uint64_t>(i);
      }
    }
    reading.bytes_read += static_cast<uint64_t>(n);
  }
}

FileState StateOf(const TreeFile& file, const FileReading& reading) {
  if (reading.error == ENOENT || (!reading.listed && reading.error == 0)) return FileState::kMissing;
  if (reading.error != 0) return FileState::kReadError;
  if (reading.differs || reading.bytes_read > file.size) return FileState::kDiffers;
  if (reading.bytes_read < file.size) return FileState::kShort;
  return FileState::kSame;
}

std::string Detail(const TreeFile& file, FileState state, const FileReading& reading) {
  switch (state) {
    case FileState::kReadError: return ErrorName(reading.error);
    case FileState::kDiffers:
      if (reading.differs) return "at byte " + std::to_string(reading.first_difference);
      [[fallthrough]];
    case FileState::kShort: return std::to_string(reading.bytes_read) + " of " + std::to_string(file.size) + " bytes";
    default: return "";
  }
}

// The state as a summary names it: before a repair "same" and "missing",
// after one "intact", "cut short" and "lost".
const char* StateName(const FileRead& file) {
  const bool repaired = AfterRepair(file.expect);
  switch (file.state) {
    case FileState::kSame: return repaired ? "intact" : "same";
    case FileState::kShort: return repaired ? "cut short" : "differs";
    case FileState::kDiffers: return "differs";
    case FileState::kReadError: return "read error";
    case FileState::kMissing: return repaired ? "lost" : "missing";
    case FileState::kTimedOut: return "timed out";
  }
  return "?";
}

}  // namespace

IsolatedRun<FileReading> ReadBack(const std::string& root, const TreeFile& file, std::chrono::seconds limit) {
  return RunIsolated<FileReading>(limit, [&] { return Read(root, file); });
}

FileRead Judged(const TreeFile& file, Expect expect, const IsolatedRun<FileReading>& reading,
                uint64_t explained_from) {
  if (!reading.result) {
    if (reading.end.TimedOut()) return {file.label, expect, FileState::kTimedOut, reading.end.Describe()};
    return {file.label, expect, FileState::kReadError, "the reading process: " + reading.end.Describe()};
  }
  const FileState state = StateOf(file, *reading.result);
  const uint64_t first_wrong = reading.result->differs ? reading.result->first_difference
                                                       : std::min(reading.result->bytes_read, file.size);
  if (expect == Expect::kExplained && (state == FileState::kDiffers || state == FileState::kShort) &&
      first_wrong < explained_from)
    expect = Expect::kAsWritten;
  return {file.label, expect, state, Detail(file, state, *reading.result)};
}

std::string Summarize(const std::vector<FileRead>& files) {
  // States in the order they are told, the good ones first.
  static const char* const kOrder[] = {"same",   "intact", "cut short", "differs", "read error",
                                       "missing", "lost",  "timed out"};
  std::map<std::string, std::vector<std::string>> by_state;
  for (const FileRead& file : files) by_state[StateName(file)].push_back(file.label);
  std::string summary;
  for (const std::string state : kOrder) {
    const auto found = by_state.find(state);
    if (found == by_state.end()) continue;
    if (!summary.empty()) summary += "; ";
    if (state == "same" || state == "intact") {
      summary += std::to_string(found->second.size()) + " " + state;
      continue;
    }
    summary += state + ": ";
    for (size_t i = 0; i < found->second.size(); ++i) summary += (i ? ", " : "") + found->second[i];
  }
  return summary;
}

std::string Evidence(const FileRead& file) {
  if (file.state == FileState::kSame) return "";
  return "read: " + file.label + ": " + StateName(file) + (file.detail.empty() ? "" : ", " + file.detail) +
         (file.expect == Expect::kExplained ? " (the changed field reaches it)" : "");
}
