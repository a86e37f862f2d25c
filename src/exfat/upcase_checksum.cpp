#include "exfat/upcase_checksum.h"

namespace {

constexpr uint64_t kModulus = 0xFFFFFFFFu;

// x -> a * x + c (mod kModulus).
struct Affine {
  uint64_t a;
  uint64_t c;
};

// `second` after `first`.
Affine Then(Affine first, Affine second) {
  return {second.a * first.a % kModulus, (second.a * first.c + second.c) % kModulus};
}

Affine Power(Affine map, uint64_t times) {
  Affine result{1, 0};
  for (; times > 0; times >>= 1, map = Then(map, map))
    if (times & 1) result = Then(result, map);
  return result;
}

}  // namespace

void UpcaseChecksum::AddZeros(uint64_t count) {
  static constexpr uint8_t kZero[1] = {0};
  for (; count > 0 && m_acc > 0xFFFFFFFFu; --count) Add(kZero);
  const unsigned turn = static_cast<unsigned>(count % 32);
  if (turn != 0) m_acc = ((m_acc >> turn) | (m_acc << (32 - turn))) & 0xFFFFFFFFu;
}

void UpcaseChecksum::Repeat(uint64_t stretch_bytes, uint64_t before, uint64_t after, uint64_t times) {
  // Halving is multiplying by 2^31, as 2^32 is 1 (mod m).
  const uint64_t halvings = (stretch_bytes % 32) * 31 % 32;
  const uint64_t a = (uint64_t{1} << halvings) % kModulus;
  const uint64_t c = (after % kModulus + kModulus - a * (before % kModulus) % kModulus) % kModulus;
  const Affine map = Power({a, c}, times);
  const uint64_t carry = m_acc / kModulus;
  m_acc = (map.a * (m_acc % kModulus) + map.c) % kModulus + kModulus * carry;
}
