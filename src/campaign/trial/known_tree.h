#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One file the campaign writes and reads back. Its contents come from its
// seed, as a volume test's files do: byte k is byte k % kPeriod of the
// seed's data block, so they can be checked again without a copy. Seeds
// differ from row to row and run to run, so that a medium that drops or
// misplaces writes cannot show an earlier row's bytes as the right ones.
struct TreeFile {
  std::string label;  // short, for summaries
  std::string path;   // below the volume's root
  uint64_t size;
  uint32_t seed;
};

// A period that no cluster size divides: a cluster read from the wrong
// place, even the right offset of another cluster of the same file, shows.
constexpr uint64_t kPeriod = 4093;

// The tree every damage row starts from: nested directories, files of one
// to many clusters (one written whole, so that the driver can keep it
// without a FAT chain), two fragmented by growing them in turns, a name
// outside ASCII and a 255-character name.
class KnownTree {
 public:
  // Below the directory `base`, or in the root itself when it is empty;
  // the files' seeds follow from `seed`.
  KnownTree(const std::string& base, uint32_t seed);

  const std::vector<TreeFile>& Files() const { return m_files; }
  size_t DirectoryCount() const { return m_nested.size() + (m_base.empty() ? 0 : 1); }
  // The file with this label (it must be one of the tree's).
  const TreeFile& File(const std::string& label) const;

  // Writes the tree below `root`, a mounted volume. Throws ErrnoException
  // on the first failing call.
  void Populate(const std::string& root) const;

 private:
  std::string m_base;
  std::vector<std::string> m_nested;  // made after the files of the top
  std::vector<TreeFile> m_files;
};

// A file a step adds to the volume, seeded from the tree's `seed`: "new"
// after the damage, "new2" after the repair.
TreeFile NewFile(const std::string& label, uint32_t seed);

// Writes bytes [from, to) of `file`'s contents at their place in `fd`.
void WriteContents(int fd, const TreeFile& file, uint64_t from, uint64_t to);
