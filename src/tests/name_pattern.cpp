#include "tests/name_pattern.h"

#include <fmt/format.h>

#include <cstdlib>

namespace {

std::string BuildNamePattern() {
  std::string pattern;
  for (int round = 0; round < 5; ++round) pattern += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  return pattern;
}

constexpr uint32_t kMaxNameLength = 255;

}  // namespace

const std::string NamePattern = BuildNamePattern();

std::string MakeFileName(int32_t index, uint32_t length) {
  if (length == 0) length = static_cast<uint32_t>(random() & 255);
  const std::string digits = fmt::format("{}", index);
  if (digits.size() + length > kMaxNameLength)
    length = kMaxNameLength - static_cast<uint32_t>(digits.size());
  return fmt::format("{:.{}}{}", NamePattern, length, digits);
}
