#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The numbers that parameterise a corruption. Each starts at its per-kind
// default; the description's keywords then override it.
struct CorruptionParameters {
  uint64_t start = 0;
  uint64_t range = 0;
  uint64_t value = 0;
};

// Splits a corruption description at ":" (empty tokens dropped, nothing else
// separates). The first token is the kind.
std::vector<std::string> SplitDescription(const std::string& description);

// Reads the keywords "start", "value" and "range" (any case) that follow the
// kind, each taking the next token as a hexadecimal value. A value that is
// not hexadecimal to its end keeps the current value; a token that is not a
// keyword is skipped; a keyword with no token after it ends the reading.
void ReadCorruptionParameters(const std::vector<std::string>& tokens, CorruptionParameters& params);
