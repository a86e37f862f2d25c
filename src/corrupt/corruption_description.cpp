#include "corrupt/corruption_description.h"

#include <boost/tokenizer.hpp>
#include <cstdlib>

#include "platform/equals_ignore_case.h"

std::vector<std::string> SplitDescription(const std::string& description) {
  const boost::char_separator<char> separator(":");
  const boost::tokenizer<boost::char_separator<char>> tokens(description, separator);
  return std::vector<std::string>(tokens.begin(), tokens.end());
}

namespace {

// Reads `text` as base-16 with strtoul (so "0x" prefixes and a wrapping "-"
// are accepted). Leaves `target` alone unless the whole token converts.
void ReadHexadecimal(const std::string& text, uint64_t& target) {
  char* end = nullptr;
  const unsigned long value = strtoul(text.c_str(), &end, 16);
  if (end != text.c_str() && *end == '\0') target = value;
}

uint64_t* KeywordTarget(const std::string& keyword, CorruptionParameters& params) {
  if (EqualsIgnoreCase(keyword, "start")) return &params.start;
  if (EqualsIgnoreCase(keyword, "value")) return &params.value;
  if (EqualsIgnoreCase(keyword, "range")) return &params.range;
  return nullptr;
}

}  // namespace

void ReadCorruptionParameters(const std::vector<std::string>& tokens, CorruptionParameters& params) {
  for (size_t i = 1; i < tokens.size(); ++i) {
    uint64_t* target = KeywordTarget(tokens[i], params);
    if (target == nullptr) continue;
    if (i + 1 == tokens.size()) return;
    ReadHexadecimal(tokens[++i], *target);
  }
}
