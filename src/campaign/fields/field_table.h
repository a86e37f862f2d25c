#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Every on-disk field the field rows fuzz, with the exFAT names, as data:
// where it lies, how wide it is, what checksum covers it, and so which
// verbs apply. Fuzzing a field, one verb a row, as fstests does for XFS.

// Where a field's structure lies on the volume.
enum class Place {
  kBootSector,      // the main boot sector
  kBootSignatures,  // the extended boot signature of the main boot region's sector 1
  kBootChecksum,    // the main boot region's checksum sector
  kFatEntry,        // a FAT entry: 0, 1, or a file's first cluster's
  kBitmapEntry,     // the root's allocation bitmap entry
  kUpcaseEntry,     // the root's up-case table entry
  kLabelEntry,      // the root's volume label entry
  kFileEntry,       // an entry set's File entry
  kStreamEntry,     // its Stream Extension entry
  kNameEntry,       // its first File Name entry
  kLastNameEntry,   // its last File Name entry (past a sector boundary for a long name)
};

// What a change to a field must be followed by, as a driver that keeps its
// checksums right would write it: so that a row tries the field, and not
// only the checksum.
enum class Cover {
  kNone,
  kBootChecksum,  // the boot region checksum
  kSetChecksum,   // the entry set's SetChecksum
  kNameHash,      // the stream's NameHash, then the SetChecksum
};

enum class Verb { kZeroes, kOnes, kFirstBit, kMiddleBit, kLastBit, kAdd, kSub, kSelf, kCrosslink };

struct Field {
  std::string structure;  // "boot", "stream": the rows' first name
  std::string name;       // "ValidDataLength"
  Place place;
  uint32_t offset;  // in its structure
  uint32_t width;   // bytes, little-endian
  Cover cover;
  // How far a field is tried: a cluster number also gets `self` and
  // `crosslink`; a field nothing validates (a serial number, a timestamp)
  // and a flag (`mask` names its bits) get only zeroes and ones. A length
  // explains a file read back otherwise from the smaller of its old and new
  // value on.
  enum class Kind { kNumber, kLength, kCluster, kUnvalidated, kFlag } kind = Kind::kNumber;
  uint8_t mask = 0xFF;
  // A boot sector field that moves where every file's data is read from.
  bool moves_data = false;
};

// One row: a field of one instance, changed by one verb.
struct FieldFuzz {
  const Field* field;
  // A label of the known tree ("long-name-last": its last name entry),
  // "nested" for the directory, "0" or "1" for FAT entries, "" for a
  // structure there is one of.
  std::string instance;
  Verb verb;
  bool quick;  // in the quick tier: zeroes, ones, firstbit, add
};

const std::vector<Field>& AllFields();
// The sector sizes a BytesPerSectorShift may name: 512 to 4096 bytes.
constexpr uint8_t kMinSectorShift = 9;
constexpr uint8_t kMaxSectorShift = 12;

// The field of that structure and name ("boot", "VolumeLength"); it must
// be in the table.
const Field& FieldNamed(const std::string& structure, const std::string& name);
const char* VerbName(Verb verb);

// Every field row, in the table's order: each field of each instance, each
// verb that applies to it.
const std::vector<FieldFuzz>& AllFieldFuzzes();

// "stream.ValidDataLength.frag-a.firstbit", "boot.VolumeLength.ones".
std::string RowName(const FieldFuzz& fuzz);
