#include "campaign/machine/sha256.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Digest(const std::string& text, size_t piece) {
  Sha256 hash;
  for (size_t at = 0; at < text.size(); at += piece)
    hash.Add({reinterpret_cast<const uint8_t*>(text.data()) + at, std::min(piece, text.size() - at)});
  return hash.HexDigest();
}

// The digests sha256sum prints, whatever pieces the bytes come in: the
// padding at and around a block's last 8 bytes is where an off-by-one hides.
TEST(Sha256, MatchesSha256sum) {
  EXPECT_EQ(Digest("", 1), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Digest("abc", 1), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  for (const size_t piece : {1, 7, 56, 64, 1000})
    EXPECT_EQ(Digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", piece),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1")
        << piece;
  EXPECT_EQ(Digest(std::string(1000000, 'a'), 4093), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
