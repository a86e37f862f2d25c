#pragma once

// What the volume tests print and leave, written out independently of the
// tool: shared by the runs on exfat-fuse, on faultfs and on tmpfs.

#include <filesystem>
#include <string>
#include <vector>

namespace volumetest {

// The first `length` characters (at most 260) of the letters test file
// names are made of.
inline std::string NamePattern(size_t length) {
  std::string pattern;
  for (int round = 0; round < 5; ++round)
    pattern += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return pattern.substr(0, length);
}

// Entries in a directory.
inline size_t EntryCount(const std::string& directory) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) ++count;
  return count;
}

inline std::vector<std::string> DirectoryPassLines() {
  return {"Creating 1000 test files", "Deleting 1000 test files", "Re-creating 1000 test files",
          "Directory structure test success"};
}

// "cluster" up to its verification, without the verdict.
inline std::vector<std::string> ClusterLines() {
  std::vector<std::string> lines{"Cluster allocation test", "Create files..."};
  for (int pass = 0; pass < 10; ++pass) lines.push_back("Append to files " + std::to_string(pass));
  lines.push_back("Verify files");
  return lines;
}

// "truncate"'s 23 rounds on a volume that zero-fills (`zeros`) or one that
// shows the cut-off bytes again.
inline std::vector<std::string> TruncateRounds(bool zeros) {
  std::vector<std::string> lines;
  for (long half = 1; half <= 4194304; half *= 2) {
    const std::string h = std::to_string(half);
    lines.push_back("Low half: 0 zero bytes, " + h + " unmodified bytes, 0 other bytes");
    lines.push_back(zeros ? "High half: " + h + " zero bytes, 0 unmodified bytes, 0 other bytes"
                          : "High half: 0 zero bytes, " + h + " unmodified bytes, 0 other bytes");
  }
  return lines;
}

// "truncatebug31031" up to its verdict.
inline std::vector<std::string> Bug31031Lines(uint64_t cluster_bytes) {
  return {"Cluster length " + std::to_string(cluster_bytes) + " bytes", "Create file1", "Create file2",
          "Append to file1", "Truncate file1 once", "Truncate file1 twice"};
}

inline std::vector<std::string> RenamePassLines() {
  return {"Rename test", "Rename test success: File name too long (36)",
          "Rename test success: File name too long (36)"};
}

// "filename" in `runtests`: whether the 256-byte name is refused, which of
// the six forbidden characters are accepted, and the error text a refused
// character gets.
inline std::vector<std::string> FilenameLines(const std::string& runtests, bool long_refused,
                                              const std::string& accepted_chars,
                                              const std::string& refusal) {
  std::vector<std::string> lines{"Check filename limits"};
  lines.push_back(long_refused ? "Filename size limit test passed: " + runtests + NamePattern(256) +
                                     ": File name too long (36)"
                               : "Filename size limit test failed, 256 byte name not allowed");
  for (char c : std::string("?|*:<>")) {
    if (accepted_chars.find(c) != std::string::npos)
      lines.push_back(std::string("Filename name test failed, ") + c + " not allowed");
    else
      lines.push_back("Filename name test passed: " + runtests + std::string(4, c) + ": " + refusal);
  }
  if (!long_refused || !accepted_chars.empty()) lines.push_back("Test failure");
  return lines;
}

}  // namespace volumetest
