#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "campaign/machine/child.h"
#include "campaign/machine/kernel_log.h"

// What a step saw, as data: how every program it ran ended, how every file
// read back, what the kernel said, how the FUSE daemon ended. The steps
// only observe; the judge alone decides what is ok.

// What a program was run for, which is what its ending means.
enum class Purpose {
  kSetUp,        // mkfs.exfat, the damage, the tree: failing, the row cannot go on
  kBaseline,     // fsck -n of the fresh volume, which must be clean before the damage
  kLook,         // fsck -n whose verdict is knowledge: caught or missed
  kMustBeClean,  // fsck -n after a repair or a volume test
  kRepair,       // fsck -y
  kTest,         // a volume test or action of the tool
  kMount,        // the mount call or exfat-fuse's helper: a refusal is knowledge
  kWork,         // the campaign's own reading and writing through the driver
};

struct Run {
  Purpose purpose;
  std::string label;  // "fsck.exfat -n", "mount.exfat-fuse", "qvexfat-test -a rename"
  Ending end;
};

// What a file must be when it is read back.
enum class Expect {
  kAsWritten,  // the bytes written; a driver may refuse to show it (missing, read error)
  kDurable,    // written and synced since the damage, then unmounted cleanly: there, as written
  kUntouched,  // after a repair, a file the damage did not hit: intact
  kHit,        // after a repair, a file the damage hit: it may be cut short, changed or lost
  kExplained,  // before a repair, a file a changed field reaches: it may read otherwise, as the field says
  kReadable,   // after a repair, a file of an image whose contents are not known: it must read
};

enum class FileState {
  kSame,
  kDiffers,    // other bytes read without an error, or more of them
  kShort,      // fewer bytes, those there the same
  kReadError,  // a listing, open or read failed
  kMissing,
  kTimedOut,
};

struct FileRead {
  std::string label;
  Expect expect;
  FileState state;
  std::string detail;  // "at byte 4096", "EIO", "8192 of 40000 bytes"
};

struct StepObservation {
  std::string name;
  std::vector<std::string> lines;  // the evidence, in the order it came
  std::string said;                // what it saw, in a line
  std::string cell;                // the same in short, for the table
  std::vector<Run> runs;
  std::vector<FileRead> files;
  KernelWords kernel;
  std::vector<Ending> daemons;  // FUSE daemons that ended during the step
  std::string not_carried_out;  // why the campaign could not do the step
  std::string store_trouble;    // the scratch store failed under the step
  std::string skipped;          // why the step does not apply
  // The sectors each fsck -y pass of a repair changed, in turn: the passes
  // go on while one changes something, three at most.
  std::vector<uint64_t> repair_passes;
  // Where two reads of the same volume, one after the other, disagreed.
  std::vector<std::string> disagreements;
  // Mounts of volumes the driver left itself at a flush, which it must
  // take again as they are: how each went ("taken", "refused (EIO)").
  std::vector<std::string> promised_mounts;
};

// What a row tells as it goes: the campaign reports each step as soon as
// it ends, so that a run that dies mid-row keeps what it saw.
class RowListener {
 public:
  virtual ~RowListener() = default;
  virtual void StepBegins(const std::string& name) = 0;
  virtual void StepEnded(StepObservation step) = 0;
};
