#include "platform/errno_exception.h"

#include <gtest/gtest.h>

#include <cerrno>

// The tool only ever shows messages of real failures; these are the forms
// no run of it can show.
TEST(ErrnoException, SuccessUnknownNumbersAndNoText) {
  EXPECT_STREQ(ErrnoException(0, "x").what(), "x: Success (0)");
  ErrnoException unknown(4242, "f");
  EXPECT_STREQ(unknown.what(), "f: Unknown error 4242 (4242)");
  EXPECT_EQ(unknown.ErrorNumber(), 4242);
  EXPECT_STREQ(ErrnoException(ENOSPC, nullptr).what(), "No space left on device (28)");
}
