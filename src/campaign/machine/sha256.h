#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

// SHA-256 (FIPS 180-4), fed in pieces: the digest a manifest of an image's
// files names each file by, as sha256sum prints it.
class Sha256 {
 public:
  Sha256();
  void Add(std::span<const uint8_t> bytes);
  // The digest in lowercase hex; the object is spent.
  std::string HexDigest();

 private:
  void Block(const uint8_t* block);

  std::array<uint32_t, 8> m_state;
  std::array<uint8_t, 64> m_pending{};
  size_t m_pending_bytes = 0;
  uint64_t m_total_bytes = 0;
};
