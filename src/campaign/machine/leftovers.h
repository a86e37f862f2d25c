#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// What a stopped run had set up and what became of it, said by name:
// "unmounted /tmp/qvexfat-campaign.Ab12Cd/mnt", "detached /dev/loop3".
struct Teardown {
  std::vector<std::string> undone;
  std::vector<std::string> left;  // what could not be undone, and why

  void Add(const Teardown& other);
  // "unmounted X, detached Y; could not: Z", or "" when there was nothing.
  std::string Describe() const;
};

// Where a row's objects note what they undid when they were torn down
// early (an interrupt, a row abandoned), for the run to say; taking the
// notes clears them.
void NoteUndone(const std::string& what);
void NoteLeft(const std::string& what);
Teardown TakeTeardownNotes();

// The mount points below `directory` as /proc/self/mountinfo lists them,
// deepest first, so that each can be unmounted in turn.
std::vector<std::string> MountsBelow(const std::string& directory);
// The loop devices ("/dev/loop3") whose backing file is `path`, also once
// that file has been removed.
std::vector<std::string> LoopDevicesOver(const std::string& path);

// Unmounts whatever is still mounted below `directory`, removes the
// device-mapper device of the campaign with process id `owner`, and
// detaches every loop device over `store`, checking that each one is gone.
Teardown Sweep(const std::string& directory, const std::string& store, pid_t owner);
