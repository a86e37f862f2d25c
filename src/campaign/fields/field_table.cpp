#include "campaign/fields/field_table.h"

#include <stdexcept>

namespace {

using Kind = Field::Kind;

// The instances each kind of structure is tried on: a FAT-chained file, a
// file without a FAT chain, a directory, a long name whose set straddles a
// sector, and a file three directories down.
const std::vector<std::string> kSetInstances{"frag-a", "big", "nested", "long-name", "deep"};
const std::vector<std::string> kFatInstances{"0", "1", "frag-a", "nested"};

std::vector<std::string> InstancesOf(Place place) {
  switch (place) {
    case Place::kFatEntry: return kFatInstances;
    case Place::kFileEntry:
    case Place::kStreamEntry:
    case Place::kNameEntry: return kSetInstances;
    case Place::kLastNameEntry: return {"long-name-last"};
    default: return {""};
  }
}

std::vector<Verb> VerbsOf(const Field& field) {
  switch (field.kind) {
    case Kind::kUnvalidated:
    case Kind::kFlag: return {Verb::kZeroes, Verb::kOnes};
    case Kind::kCluster:
      return {Verb::kZeroes, Verb::kOnes, Verb::kFirstBit, Verb::kMiddleBit, Verb::kLastBit,
              Verb::kAdd,    Verb::kSub,  Verb::kSelf,     Verb::kCrosslink};
    case Kind::kNumber:
    case Kind::kLength: break;
  }
  return {Verb::kZeroes, Verb::kOnes, Verb::kFirstBit, Verb::kMiddleBit, Verb::kLastBit, Verb::kAdd, Verb::kSub};
}

// The quick tier: every field, with zeroes, ones, firstbit and add, on a
// chained file, a contiguous one, a directory and a long name; a field
// nothing validates on one file.
bool Quick(const Field& field, const std::string& instance, Verb verb) {
  if (verb != Verb::kZeroes && verb != Verb::kOnes && verb != Verb::kFirstBit && verb != Verb::kAdd) return false;
  if (instance == "deep") return false;
  return field.kind != Kind::kUnvalidated || instance.empty() || instance == "frag-a";
}

}  // namespace

const std::vector<Field>& AllFields() {
  static const std::vector<Field> fields{
      {"boot", "JumpBoot", Place::kBootSector, 0, 3, Cover::kBootChecksum},
      {"boot", "FileSystemName", Place::kBootSector, 3, 8, Cover::kBootChecksum},
      {"boot", "MustBeZero", Place::kBootSector, 11, 53, Cover::kBootChecksum},
      {"boot", "PartitionOffset", Place::kBootSector, 64, 8, Cover::kBootChecksum},
      {"boot", "VolumeLength", Place::kBootSector, 72, 8, Cover::kBootChecksum},
      {"boot", "FatOffset", Place::kBootSector, 80, 4, Cover::kBootChecksum, Kind::kNumber, 0xFF, true},
      {"boot", "FatLength", Place::kBootSector, 84, 4, Cover::kBootChecksum},
      {"boot", "ClusterHeapOffset", Place::kBootSector, 88, 4, Cover::kBootChecksum, Kind::kNumber, 0xFF, true},
      {"boot", "ClusterCount", Place::kBootSector, 92, 4, Cover::kBootChecksum},
      {"boot", "FirstClusterOfRootDirectory", Place::kBootSector, 96, 4, Cover::kBootChecksum, Kind::kCluster, 0xFF,
       true},
      {"boot", "VolumeSerialNumber", Place::kBootSector, 100, 4, Cover::kBootChecksum, Kind::kUnvalidated},
      {"boot", "FileSystemRevision", Place::kBootSector, 104, 2, Cover::kBootChecksum},
      // Left out of the boot checksum, as a driver flips them in use.
      {"boot", "VolumeFlags", Place::kBootSector, 106, 2, Cover::kNone, Kind::kNumber, 0xFF, true},  // ActiveFat
      {"boot", "BytesPerSectorShift", Place::kBootSector, 108, 1, Cover::kBootChecksum, Kind::kNumber, 0xFF, true},
      {"boot", "SectorsPerClusterShift", Place::kBootSector, 109, 1, Cover::kBootChecksum, Kind::kNumber, 0xFF, true},
      {"boot", "NumberOfFats", Place::kBootSector, 110, 1, Cover::kBootChecksum, Kind::kNumber, 0xFF, true},
      {"boot", "DriveSelect", Place::kBootSector, 111, 1, Cover::kBootChecksum, Kind::kUnvalidated},
      {"boot", "PercentInUse", Place::kBootSector, 112, 1, Cover::kNone},
      {"boot", "BootSignature", Place::kBootSector, 510, 2, Cover::kBootChecksum},
      {"boot", "ExtendedBootSignature", Place::kBootSignatures, 508, 4, Cover::kBootChecksum},
      {"boot", "BootChecksum", Place::kBootChecksum, 0, 4, Cover::kNone},

      {"fat", "Entry", Place::kFatEntry, 0, 4, Cover::kNone, Kind::kCluster},

      {"bitmap", "BitmapFlags", Place::kBitmapEntry, 1, 1, Cover::kNone},
      {"bitmap", "FirstCluster", Place::kBitmapEntry, 20, 4, Cover::kNone, Kind::kCluster},
      {"bitmap", "DataLength", Place::kBitmapEntry, 24, 8, Cover::kNone},
      {"upcase", "TableChecksum", Place::kUpcaseEntry, 4, 4, Cover::kNone},
      {"upcase", "FirstCluster", Place::kUpcaseEntry, 20, 4, Cover::kNone, Kind::kCluster},
      {"upcase", "DataLength", Place::kUpcaseEntry, 24, 8, Cover::kNone},
      {"label", "CharacterCount", Place::kLabelEntry, 1, 1, Cover::kNone},
      {"label", "VolumeLabel", Place::kLabelEntry, 2, 22, Cover::kNone},

      {"file", "SecondaryCount", Place::kFileEntry, 1, 1, Cover::kSetChecksum},
      {"file", "SetChecksum", Place::kFileEntry, 2, 2, Cover::kNone},
      {"file", "FileAttributes", Place::kFileEntry, 4, 2, Cover::kSetChecksum},
      {"file", "CreateTimestamp", Place::kFileEntry, 8, 4, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "LastModifiedTimestamp", Place::kFileEntry, 12, 4, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "LastAccessedTimestamp", Place::kFileEntry, 16, 4, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "Create10msIncrement", Place::kFileEntry, 20, 1, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "LastModified10msIncrement", Place::kFileEntry, 21, 1, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "CreateUtcOffset", Place::kFileEntry, 22, 1, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "LastModifiedUtcOffset", Place::kFileEntry, 23, 1, Cover::kSetChecksum, Kind::kUnvalidated},
      {"file", "LastAccessedUtcOffset", Place::kFileEntry, 24, 1, Cover::kSetChecksum, Kind::kUnvalidated},

      {"stream", "GeneralSecondaryFlags", Place::kStreamEntry, 1, 1, Cover::kSetChecksum},
      {"stream", "AllocationPossible", Place::kStreamEntry, 1, 1, Cover::kSetChecksum, Kind::kFlag, 0x01},
      {"stream", "NoFatChain", Place::kStreamEntry, 1, 1, Cover::kSetChecksum, Kind::kFlag, 0x02},
      {"stream", "NameLength", Place::kStreamEntry, 3, 1, Cover::kSetChecksum},
      {"stream", "NameHash", Place::kStreamEntry, 4, 2, Cover::kSetChecksum},
      {"stream", "ValidDataLength", Place::kStreamEntry, 8, 8, Cover::kSetChecksum, Kind::kLength},
      {"stream", "FirstCluster", Place::kStreamEntry, 20, 4, Cover::kSetChecksum, Kind::kCluster},
      {"stream", "DataLength", Place::kStreamEntry, 24, 8, Cover::kSetChecksum, Kind::kLength},

      {"name", "GeneralSecondaryFlags", Place::kNameEntry, 1, 1, Cover::kSetChecksum},
      {"name", "FileName", Place::kNameEntry, 2, 30, Cover::kNameHash},
      {"name", "FileName", Place::kLastNameEntry, 2, 30, Cover::kNameHash},
  };
  return fields;
}

const char* VerbName(Verb verb) {
  switch (verb) {
    case Verb::kZeroes: return "zeroes";
    case Verb::kOnes: return "ones";
    case Verb::kFirstBit: return "firstbit";
    case Verb::kMiddleBit: return "middlebit";
    case Verb::kLastBit: return "lastbit";
    case Verb::kAdd: return "add";
    case Verb::kSub: return "sub";
    case Verb::kSelf: return "self";
    case Verb::kCrosslink: return "crosslink";
  }
  return "?";
}

const std::vector<FieldFuzz>& AllFieldFuzzes() {
  static const std::vector<FieldFuzz> fuzzes = [] {
    std::vector<FieldFuzz> all;
    for (const Field& field : AllFields())
      for (const std::string& instance : InstancesOf(field.place))
        for (const Verb verb : VerbsOf(field)) {
          // The boot sector lies in no cluster: nothing for `self` to name.
          if (verb == Verb::kSelf && field.place == Place::kBootSector) continue;
          all.push_back({&field, instance, verb, Quick(field, instance, verb)});
        }
    return all;
  }();
  return fuzzes;
}

const Field& FieldNamed(const std::string& structure, const std::string& name) {
  for (const Field& field : AllFields())
    if (field.structure == structure && field.name == name) return field;
  throw std::logic_error("the field table has no " + structure + "." + name);
}

std::string RowName(const FieldFuzz& fuzz) {
  return fuzz.field->structure + "." + fuzz.field->name + (fuzz.instance.empty() ? "" : "." + fuzz.instance) + "." +
         VerbName(fuzz.verb);
}
