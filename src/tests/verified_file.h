#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A test file that knows what it must hold. Its contents repeat one block of
// pseudo-random bytes with the period of the chunk length: every write made
// through the object starts at the beginning of the block, so byte k of the
// file equals byte k % chunk of the block. Each object draws its seed from
// random() and then runs a private generator, so objects never disturb each
// other's or the process's random() sequence.
//
// The destructor verifies the file (and removes it when asked to), but only
// when no exception is in flight: a failed test leaves its files on the
// volume, unverified, for inspection. A verification failure at the end of a
// scope is how most tests detect corruption, so the destructor may throw.
class VerifiedFile {
 public:
  // Creates (or opens without truncating) `path` and writes `initial_size`
  // bytes in writes of at most `chunk_length` bytes. A non-zero size with a
  // chunk length of 0 would make no progress and throws std::invalid_argument.
  VerifiedFile(const std::string& path, uint64_t initial_size, uint64_t chunk_length,
               bool remove_when_done);
  ~VerifiedFile() noexcept(false);

  VerifiedFile(const VerifiedFile&) = delete;
  VerifiedFile& operator=(const VerifiedFile&) = delete;

  // Writes `length` further bytes at the end of the file. Keeps the period
  // only when the size before is a whole multiple of the chunk length.
  void Append(uint64_t length);

  // Checks the file on the volume: its size by lstat64, then every byte.
  // Throws std::runtime_error (or ErrnoException when it cannot be opened).
  void Verify();

  // The size the file must hold after its owner truncated it.
  void SetExpectedSize(int64_t size) { m_size = size; }

  const std::string& Path() const { return m_path; }
  int64_t Size() const { return m_size; }
  uint64_t ChunkLength() const { return m_chunk_length; }
  // The block every chunk-length piece of the file is written from.
  const std::vector<unsigned char>& DataBlock() const { return m_data; }

 private:
  // Writes `length` bytes to `fd` in pieces of at most one chunk, each from
  // the start of the data block.
  void WritePieces(int fd, uint64_t length) const;

  std::vector<unsigned char> m_data;
  std::string m_path;
  int64_t m_size = 0;
  uint64_t m_chunk_length;
  bool m_remove_when_done;
};
