// A tiny program that fails an assertion in the way its first argument
// names, so that the reporter can be watched from outside the process.

#include <boost/tokenizer.hpp>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/assertion_report.h"

int main(int argc, char* argv[]) {
  const std::string mode = argc > 1 ? argv[1] : "";
  volatile int x = 0;
  if (mode == "assert") {
    assert(x > 0);
  } else if (mode == "perror") {
    assert_perror(ENOSPC);
  } else if (mode == "report") {
    ReportAssertion("some/file.cpp", 42, "void f()", "a == b");
    return 0;
  } else if (mode == "message") {
    ReportAssertionMessage("some/file.cpp", 43, "void g()", "c != d", "value %d\n", 7);
    return 0;
  } else if (mode == "boost") {
    const std::string text = "a:b";
    boost::tokenizer<boost::char_separator<char>> tokens(text, boost::char_separator<char>(":"));
    auto it = tokens.begin();
    ++it;
    ++it;
    ++it;  // past the end: Boost's own assertion fires
  }
  return 3;
}
