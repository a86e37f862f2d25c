#pragma once

#include <cstdint>
#include <string>

// An image file a user brought to be tried: raw, or compressed with gzip
// or xz, told by its first bytes and not by its name. Its bytes are read
// from the file each time, never held whole.
class UserImage {
 public:
  // Throws ErrnoException when the file cannot be read.
  explicit UserImage(std::string path);

  const std::string& Path() const { return m_path; }
  // "raw", "gzip" or "xz".
  const char* Format() const;
  // Its bytes once uncompressed, counted no further than `most` + 1: a
  // count past `most` says only that it is larger. Throws
  // std::runtime_error on compressed data that is corrupt.
  uint64_t Measure(uint64_t most) const;
  // Writes its bytes to `device` from byte 0; blocks of zeros are skipped
  // when the device reads zeros there already.
  void CopyTo(const std::string& device, bool zeroed) const;

 private:
  enum class Kind { kRaw, kGzip, kXz };
  // Hands the bytes, in order, to `sink` until it returns false.
  template <typename Sink>
  void Stream(Sink sink) const;

  std::string m_path;
  Kind m_kind = Kind::kRaw;
};
