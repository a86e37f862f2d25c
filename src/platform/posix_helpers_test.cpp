#include "platform/posix_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

namespace {

struct Pipe {
  UniqueFd read_end, write_end;
  Pipe() {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe");
    read_end = UniqueFd(fds[0]);
    write_end = UniqueFd(fds[1]);
  }
};

std::vector<unsigned char> Pattern(size_t length) {
  std::vector<unsigned char> bytes(length);
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 251);
  return bytes;
}

}  // namespace

TEST(ReadAllThrow, GathersShortReadsUntilTheLengthIsIn) {
  Pipe p;
  std::thread writer([&] {
    for (const char* piece : {"abc", "defg", "hij"}) {
      ASSERT_EQ(write(p.write_end.Get(), piece, strlen(piece)), static_cast<ssize_t>(strlen(piece)));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  char buffer[10] = {};
  EXPECT_EQ(read_all_throw(p.read_end.Get(), buffer, sizeof buffer), 10u);
  writer.join();
  EXPECT_EQ(std::string(buffer, 10), "abcdefghij");
}

TEST(ReadAllThrow, StopsEarlyAtEndOfFile) {
  Pipe p;
  ASSERT_EQ(write(p.write_end.Get(), "12345", 5), 5);
  p.write_end.Reset();
  char buffer[10] = {};
  EXPECT_EQ(read_all_throw(p.read_end.Get(), buffer, sizeof buffer), 5u);
  EXPECT_EQ(std::string(buffer, 5), "12345");
  EXPECT_EQ(read_all_throw(p.read_end.Get(), buffer, sizeof buffer), 0u);
}

TEST(ReadAllThrow, ZeroLengthDoesNotTouchTheDescriptor) {
  EXPECT_EQ(read_all_throw(-1, nullptr, 0), 0u);
}

TEST(ReadAllThrow, FailureThrowsWithTheFunctionName) {
  Pipe p;
  char buffer[4];
  try {
    read_all_throw(p.write_end.Get(), buffer, sizeof buffer);
    FAIL() << "no exception";
  } catch (const ErrnoException& e) {
    EXPECT_STREQ(e.what(), "read_all_throw: Bad file descriptor (9)");
    EXPECT_EQ(e.ErrorNumber(), EBADF);
  }
}

TEST(WriteAllThrow, LoopsOverShortWritesIntoAFullPipe) {
  Pipe p;
  const auto data = Pattern(1 << 20);  // far more than a pipe holds at once
  std::vector<unsigned char> received;
  std::thread reader([&] {
    unsigned char buffer[4096];
    for (;;) {
      ssize_t n = read(p.read_end.Get(), buffer, sizeof buffer);
      if (n <= 0) break;
      received.insert(received.end(), buffer, buffer + n);
    }
  });
  write_all_throw(p.write_end.Get(), data.data(), data.size());
  p.write_end.Reset();
  reader.join();
  EXPECT_EQ(received, data);
}

TEST(WriteAllThrow, ZeroLengthDoesNotTouchTheDescriptor) {
  EXPECT_NO_THROW(write_all_throw(-1, nullptr, 0));
}

TEST(WriteAllThrow, FailureThrowsWithoutText) {
  signal(SIGPIPE, SIG_IGN);
  Pipe p;
  p.read_end.Reset();
  try {
    write_all_throw(p.write_end.Get(), "x", 1);
    FAIL() << "no exception";
  } catch (const ErrnoException& e) {
    EXPECT_STREQ(e.what(), "Broken pipe (32)");
  }
  try {
    write_all_throw(-1, "x", 1);
    FAIL() << "no exception";
  } catch (const ErrnoException& e) {
    EXPECT_STREQ(e.what(), "Bad file descriptor (9)");
  }
}
