#include "tests/rename.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "platform/errno_exception.h"
#include "platform/log_message.h"
#include "tests/name_pattern.h"
#include "tests/verified_file.h"

namespace {

void Rename(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) < 0) throw ErrnoException(errno);
}

// The refusal is the passing outcome; its errno text goes into the line.
void ReportRefusal() {
  const ErrnoException refusal(errno);
  LogMessage("Rename test success: %s\n", refusal.what());
}

}  // namespace

void RenameTest(const std::string& directory) {
  LogMessage("Rename test\n");
  const std::string source = directory + "original_file";
  const std::string existing_target = directory + "existing_target_file";
  const std::string target = directory + "target_file";
  const std::string longer = directory + "longerfilenamethatrequiresanewdirectoryentry";

  try {
    {
      // Sizes and chunk lengths that are multiples of nothing in particular.
      VerifiedFile source_file(source, 98208, 3100, false);
      VerifiedFile existing_file(existing_target, 13299, 2100, false);
    }
    Rename(source, target);
    Rename(target, source);
    Rename(source, longer);
    Rename(longer, source);
    Rename(source, existing_target);  // replaces the existing file
    Rename(existing_target, source);
  } catch (const std::exception& e) {
    LogMessage("Rename test failed: %s\n", e.what());
    throw std::exception();
  }

  bool too_long_refused = false;
  {
    const std::string too_long = directory + NamePattern;
    if (rename(source.c_str(), too_long.c_str()) < 0) {
      ReportRefusal();
      too_long_refused = true;
    } else {
      LogMessage("Rename test to too long failed\n");
    }
  }
  const std::string too_long = directory + NamePattern;
  if (rename(too_long.c_str(), target.c_str()) >= 0) {
    LogMessage("Rename test from too long failed\n");
    throw std::runtime_error("RenameTest failed");
  }
  ReportRefusal();
  // Thrown past the "Rename test failed" report on purpose: the runner
  // alone reports it.
  if (!too_long_refused) throw std::runtime_error("RenameTest failed");
}
