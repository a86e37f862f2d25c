#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "campaign/known_tree.h"

// What reading one file back through a driver gave.
struct FileReading {
  bool listed = false;  // its name is in its directory's listing
  int error = 0;        // errno of the listing, open or read that failed
  uint64_t bytes_read = 0;  // before the end of the file, or the error
  std::optional<uint64_t> first_difference;  // within the bytes read
  std::string failure;  // the reading process itself failed: timed out, killed
};

// Lists the file's directory and reads the file below the mounted `root`,
// in a process of its own, comparing every byte with what was written.
FileReading ReadBack(const std::string& root, const TreeFile& file, std::chrono::seconds limit);

// What a reading says of the file.
struct FileVerdict {
  std::string state;   // "same", "differs", "read error", "missing", "timed out";
                       // after a repair "intact", "cut short" or "lost" too
  std::string detail;  // "at byte 4096", "EIO", "8192 of 40000 bytes kept"
  bool hazard = false;  // bytes other than those written, read without an error
  bool timed_out = false;
};
// Read back as it was written: the same, or not.
FileVerdict JudgeRead(const TreeFile& file, const FileReading& reading);
// Read back after a repair, which may cut a file short or lose it: only
// bytes within the length it kept must be the same.
FileVerdict JudgeRepaired(const TreeFile& file, const FileReading& reading);

// "8 same" or "6 same; differs: file2; read error: big (EIO)".
std::string Summarize(const std::vector<TreeFile>& files, const std::vector<FileVerdict>& verdicts);
