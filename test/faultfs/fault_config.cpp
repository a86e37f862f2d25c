#include "fault_config.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace faultfs {
namespace {

constexpr std::pair<const char*, Fault> kFaultNames[] = {
    {"none", Fault::kNone},
    {"stale-extend", Fault::kStaleExtend},
    {"wrong-truncate-size", Fault::kWrongTruncateSize},
    {"no-enospc", Fault::kNoEnospc},
    {"truncate-frees-wrong", Fault::kTruncateFreesWrong},
    {"long-names", Fault::kLongNames},
    {"bad-chars", Fault::kBadChars},
    {"rename-long", Fault::kRenameLong},
    {"lose-entry", Fault::kLoseEntry},
    {"shared-cluster", Fault::kSharedCluster},
};

}  // namespace

std::optional<std::string> ParseFault(const std::string& text, FaultConfig& config) {
  std::string name = text;
  std::optional<std::string> argument;
  if (auto equals = text.find('='); equals != std::string::npos) {
    name = text.substr(0, equals);
    argument = text.substr(equals + 1);
  }
  for (const auto& [known, fault] : kFaultNames) {
    if (name != known) continue;
    if (argument) {
      if (fault != Fault::kBadChars || argument->empty())
        return "fault " + name + " takes no argument";
      for (char c : *argument)
        if (std::string("?|*:<>").find(c) == std::string::npos)
          return std::string("bad-chars accepts only ? | * : < >, not ") + c;
      config.accepted_bad_chars = *argument;
    }
    config.fault = fault;
    return std::nullopt;
  }
  return "unknown fault " + name;
}

std::optional<uint64_t> ParseByteCount(const std::string& text) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  unsigned long long value = strtoull(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str()) return std::nullopt;
  std::string suffix(end);
  int shift = 0;
  if (suffix == "K") shift = 10;
  else if (suffix == "M") shift = 20;
  else if (suffix == "G") shift = 30;
  else if (!suffix.empty()) return std::nullopt;
  if (shift != 0 && value > (~0ull >> shift)) return std::nullopt;
  return static_cast<uint64_t>(value) << shift;
}

}  // namespace faultfs
