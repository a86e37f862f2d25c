#include "platform/posix_helpers.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/errno_exception.h"
#include "platform/unique_fd.h"

// Short reads and writes happen on pipes, not on the files and devices the
// tool works on, so they are shown here.
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

}  // namespace

TEST(ReadAllThrow, GathersShortReadsAndStopsAtEndOfFile) {
  Pipe p;
  std::thread writer([&] {
    for (const std::string piece : {"abc", "defg", "hij", "kl"}) {
      ASSERT_EQ(write(p.write_end.Get(), piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    p.write_end.Reset();
  });
  char buffer[10] = {};
  EXPECT_EQ(read_all_throw(p.read_end.Get(), buffer, sizeof buffer), 10u);
  EXPECT_EQ(std::string(buffer, 10), "abcdefghij");
  EXPECT_EQ(read_all_throw(p.read_end.Get(), buffer, sizeof buffer), 2u);
  writer.join();
  try {
    read_all_throw(-1, buffer, sizeof buffer);
    FAIL() << "no exception";
  } catch (const ErrnoException& e) {
    EXPECT_STREQ(e.what(), "read_all_throw: Bad file descriptor (9)");
  }
}

TEST(WriteAllThrow, LoopsOverShortWritesAndThrowsWithoutText) {
  Pipe p;
  std::vector<unsigned char> data(1 << 20);  // far more than a pipe holds at once
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + i / 251);
  std::vector<unsigned char> received;
  std::thread reader([&] {
    unsigned char buffer[4096];
    for (ssize_t n; (n = read(p.read_end.Get(), buffer, sizeof buffer)) > 0;)
      received.insert(received.end(), buffer, buffer + n);
  });
  write_all_throw(p.write_end.Get(), data.data(), data.size());
  p.write_end.Reset();
  reader.join();
  EXPECT_EQ(received, data);

  signal(SIGPIPE, SIG_IGN);
  Pipe closed;
  closed.read_end.Reset();
  try {
    write_all_throw(closed.write_end.Get(), "x", 1);
    FAIL() << "no exception";
  } catch (const ErrnoException& e) {
    EXPECT_STREQ(e.what(), "Broken pipe (32)");
  }
}
