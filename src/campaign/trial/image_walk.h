#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "campaign/machine/child.h"
#include "campaign/trial/observation.h"

// A file or directory of a mounted volume whose contents the campaign does
// not know (an image a user brought), as one walk of its tree found it.
struct WalkedEntry {
  std::string path;  // below the mount point: "DCIM/100/IMG_0001.JPG"
  bool directory = false;
  uint64_t bytes = 0;  // read before the end of the file, or before the error
  std::string sha256;  // of a file read to its end
  int error = 0;       // errno of the listing, open or read that failed
};

struct Walk {
  Ending end;             // of the walking process
  bool finished = false;  // it walked the whole tree and said what it found
  bool cut = false;       // it found more than a walk keeps: the rest is not compared
  std::vector<WalkedEntry> entries;

  // "412 files in 37 directories", with "read error: a/b (EIO)" for
  // what could not be read.
  std::string Summary() const;
};

// Lists every directory and reads every file whole below `root`, in a
// process of its own stopped at `limit`. A tree deeper than a real one
// (a damaged directory that holds itself) is not entered further.
Walk WalkVolume(const std::string& root, std::chrono::seconds limit);

// Each file or directory the walk could not read, as a file that must read.
std::vector<FileRead> Unreadable(const Walk& walk);

// Where two walks of the same volume disagree, a line each:
// "a/b: 4096 bytes, sha256 3f2a…; then EIO after 0 bytes".
std::vector<std::string> Disagreements(const Walk& first, const Walk& second);

// A manifest beside an image, as sha256sum prints it: the digest of each
// file by its path below the volume's root. Throws ErrnoException, and
// std::runtime_error naming a line that is not a digest and a path.
std::map<std::string, std::string> ReadManifest(const std::string& path);

// Each file of the manifest as the walk read it: same, differs, missing,
// read error.
std::vector<FileRead> AgainstManifest(const Walk& walk, const std::map<std::string, std::string>& manifest,
                                      Expect expect);
