#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "campaign/trial/known_tree.h"
#include "campaign/trial/observation.h"

// What reading one file back through a driver gave, as the reading
// process sends it back.
struct FileReading {
  bool listed = false;      // its name is in its directory's listing
  int error = 0;            // errno of the listing, open or read that failed
  uint64_t bytes_read = 0;  // before the end of the file, or the error
  bool differs = false;     // a byte within those read is not the one written
  uint64_t first_difference = 0;
};

// Lists the file's directory and reads the file below the mounted `root`,
// in a process of its own, comparing every byte with what was written.
// Empty when the reading process did not finish (`end` tells why).
IsolatedRun<FileReading> ReadBack(const std::string& root, const TreeFile& file, std::chrono::seconds limit);

// What a reading shows of the file.
// A file that a changed field reaches (kExplained) but that differs
// before byte `explained_from` is judged as kAsWritten: the field does not
// explain that.
FileRead Judged(const TreeFile& file, Expect expect, const IsolatedRun<FileReading>& reading,
                uint64_t explained_from = 0);

// "8 same" or "6 same; differs: file2; read error: big (EIO)"; after a
// repair "7 intact; lost: file2".
std::string Summarize(const std::vector<FileRead>& files);
// A line of evidence for a file that did not read back the same, or "".
std::string Evidence(const FileRead& file);
