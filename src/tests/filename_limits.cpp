#include "tests/filename_limits.h"

#include <fmt/format.h>

#include <stdexcept>

#include "platform/log_message.h"
#include "tests/name_pattern.h"
#include "tests/verified_file.h"

namespace {

struct ForbiddenName {
  const char* name;
  const char* accepted_message;
};

constexpr ForbiddenName kForbiddenNames[] = {
    {"????", "Filename name test failed, ? not allowed\n"},
    {"||||", "Filename name test failed, | not allowed\n"},
    {"****", "Filename name test failed, * not allowed\n"},
    {"::::", "Filename name test failed, : not allowed\n"},
    {"<<<<", "Filename name test failed, < not allowed\n"},
    {">>>>", "Filename name test failed, > not allowed\n"},
};

}  // namespace

void FilenameTest(const std::string& directory) {
  LogMessage("Check filename limits\n");
  try {
    VerifiedFile longest(directory + fmt::format("{:.{}}", NamePattern, 255), 0, 0, true);
  } catch (const std::exception& e) {
    LogMessage("Filename size limit test failed: %s\n", e.what());
    throw std::exception();
  }

  // A refusal shows as the creation's exception. An accepted name prints
  // its failed line; if checking or removing that file then throws, the
  // handler prints the passed line, yet the name stays counted as accepted.
  bool accepted = false;
  try {
    VerifiedFile too_long(directory + fmt::format("{:.{}}", NamePattern, 256), 0, 0, true);
    accepted = true;
    LogMessage("Filename size limit test failed, 256 byte name not allowed\n");
  } catch (const std::exception& e) {
    LogMessage("Filename size limit test passed: %s\n", e.what());
  }
  bool all_passed = !accepted;

  for (const ForbiddenName& forbidden : kForbiddenNames) {
    accepted = false;
    try {
      VerifiedFile file(directory + forbidden.name, 0, 0, true);
      accepted = true;
      LogMessage("%s", forbidden.accepted_message);
    } catch (const std::exception& e) {
      LogMessage("Filename name test passed: %s\n", e.what());
    }
    if (accepted) all_passed = false;
  }

  // Not reported by this test: the runner alone reports it.
  if (!all_passed) throw std::runtime_error("FilenameTest failed");
}
