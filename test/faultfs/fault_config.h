#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace faultfs {

// The one way a mount misbehaves. kNone behaves like a healthy exFAT volume.
enum class Fault {
  kNone,
  kStaleExtend,         // ftruncate growth shows the bytes cut off earlier, not zeros
  kWrongTruncateSize,   // after a truncation, stat keeps reporting the old size
  kNoEnospc,            // writes and allocations succeed beyond the capacity
  kTruncateFreesWrong,  // shrinking a file zeroes a cluster of another file beside it
  kLongNames,           // names of 256 and more characters are accepted
  kBadChars,            // some of ? | * : < > are accepted in names
  kRenameLong,          // rename accepts names over 255 characters, both ways
  kLoseEntry,           // the Nth entry created in a directory vanishes
  kSharedCluster,       // data written to a file also lands in the file written before it
};

struct FaultConfig {
  Fault fault = Fault::kNone;
  // Forbidden characters that kBadChars lets through.
  std::string accepted_bad_chars = "?|*:<>";
  uint64_t capacity_bytes = 256ull << 20;
  uint64_t cluster_bytes = 4096;
  // kLoseEntry: the entry that brings a directory to this many entries is lost.
  uint64_t lose_after = 200;
};

// Reads "name" or "bad-chars=<characters>" into config; returns an error text
// for an unknown name.
std::optional<std::string> ParseFault(const std::string& text, FaultConfig& config);

// Reads a byte count with an optional K, M or G suffix (powers of 1024).
std::optional<uint64_t> ParseByteCount(const std::string& text);

}  // namespace faultfs
