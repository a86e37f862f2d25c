#include "platform/errno_exception.h"

#include <gtest/gtest.h>

#include <cerrno>

TEST(ErrnoException, MessageIsTextThenErrorTextThenNumber) {
  EXPECT_STREQ(ErrnoException(ENOENT, "/dev/urandom").what(),
               "/dev/urandom: No such file or directory (2)");
  EXPECT_STREQ(ErrnoException(EBUSY, std::string("/dev/sdb1")).what(),
               "/dev/sdb1: Device or resource busy (16)");
  EXPECT_STREQ(ErrnoException(0, "x").what(), "x: Success (0)");
}

TEST(ErrnoException, WithoutTextThereIsNoPrefix) {
  EXPECT_STREQ(ErrnoException(EACCES).what(), "Permission denied (13)");
  EXPECT_STREQ(ErrnoException(ENOSPC, nullptr).what(), "No space left on device (28)");
}

TEST(ErrnoException, UnknownNumbersAndCarriedNumber) {
  ErrnoException e(4242, "f");
  EXPECT_STREQ(e.what(), "f: Unknown error 4242 (4242)");
  EXPECT_EQ(e.ErrorNumber(), 4242);
  EXPECT_STREQ(ErrnoException(-1).what(), "Unknown error -1 (-1)");
}

TEST(ErrnoException, IsAStandardException) {
  try {
    throw ErrnoException(EIO, "read");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "read: Input/output error (5)");
    return;
  }
  FAIL() << "not caught as std::exception";
}
