// Boost's debug assertions (for example a tokenizer iterator used past its
// end) are routed to the same reporter as the program's own asserts.
// BOOST_ENABLE_ASSERT_HANDLER is defined for every user of the platform
// library, which makes Boost call these two functions.

#include <boost/assert.hpp>
#include <cstdlib>

#include "platform/assertion_report.h"

namespace boost {

void assertion_failed(const char* expression, const char* function, const char* file, long line) {
  ReportAssertion(file, static_cast<unsigned>(line), function, expression);
  abort();
}

void assertion_failed_msg(const char* expression, const char* message, const char* function,
                          const char* file, long line) {
  ReportAssertionMessage(file, static_cast<unsigned>(line), function, expression, "%s", message);
  abort();
}

}  // namespace boost
