#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "process.h"

using testsupport::ProcessOptions;
using testsupport::ProcessResult;
using testsupport::RunProcess;

namespace {

constexpr uid_t kNobody = 65534;

// Runs the probe as an ordinary user, for whom "/dev/kmsg" is not writable,
// so every report goes to standard error.
ProcessResult ProbeAsUser(const std::string& mode) {
  ProcessOptions options;
  if (geteuid() == 0) options.user = kNobody;
  return RunProcess({ASSERT_PROBE, mode}, options);
}

bool KernelLogWritable() { return access("/dev/kmsg", W_OK) == 0; }

}  // namespace

TEST(AssertionReport, FailedAssertReportsToStandardErrorAndAborts) {
  if (geteuid() != 0 && KernelLogWritable()) GTEST_SKIP() << "cannot make /dev/kmsg unwritable";
  ProcessResult r = ProbeAsUser("assert");
  EXPECT_EQ(r.signal, SIGABRT);
  EXPECT_EQ(r.err, std::string("\r\nASSERT FAILED: x > 0\r\n") + ASSERT_PROBE_SOURCE +
                       ":17:int main(int, char**)\r\n\r\n");
}

TEST(AssertionReport, PerrorAssertReportsTheErrorText) {
  if (geteuid() != 0 && KernelLogWritable()) GTEST_SKIP() << "cannot make /dev/kmsg unwritable";
  ProcessResult r = ProbeAsUser("perror");
  EXPECT_EQ(r.signal, SIGABRT);
  EXPECT_EQ(r.err, std::string("\r\nASSERT FAILED: No space left on device\r\n") +
                       ASSERT_PROBE_SOURCE + ":19:int main(int, char**)\r\n\r\n");
}

TEST(AssertionReport, BoostAssertionGoesThroughTheReporter) {
  if (geteuid() != 0 && KernelLogWritable()) GTEST_SKIP() << "cannot make /dev/kmsg unwritable";
  ProcessResult r = ProbeAsUser("boost");
  EXPECT_EQ(r.signal, SIGABRT);
  EXPECT_EQ(r.err.rfind("\r\nASSERT FAILED: valid_\r\n/usr/include/boost/token_iterator.hpp:", 0), 0u)
      << r.err;
}

TEST(AssertionReport, BothFormsOnStandardErrorWithoutAborting) {
  if (geteuid() != 0 && KernelLogWritable()) GTEST_SKIP() << "cannot make /dev/kmsg unwritable";
  ProcessResult r = ProbeAsUser("report");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.err, "\r\nASSERT FAILED: a == b\r\nsome/file.cpp:42:void f()\r\n\r\n");
  r = ProbeAsUser("message");
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.err, "\r\nASSERT FAILED: c != d\r\nvalue 7\n\r\nsome/file.cpp:43:void g()\r\n\r\n");
}

TEST(AssertionReport, KernelLogReceivesTheReportWhenWritable) {
  if (!KernelLogWritable()) GTEST_SKIP() << "/dev/kmsg is not writable here";
  int log = open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (log < 0) GTEST_SKIP() << "/dev/kmsg cannot be read here: " << strerror(errno);
  lseek(log, 0, SEEK_END);  // only records written from now on

  ProcessResult assert_run = RunProcess({ASSERT_PROBE, "assert"});
  ProcessResult message_run = RunProcess({ASSERT_PROBE, "message"});
  EXPECT_EQ(assert_run.signal, SIGABRT);
  EXPECT_EQ(assert_run.err, "");
  EXPECT_EQ(message_run.err, "");

  std::string records;
  char buffer[8192];
  for (;;) {
    ssize_t n = read(log, buffer, sizeof buffer);
    if (n < 0 && errno == EPIPE) continue;  // overwritten records
    if (n <= 0) break;
    records.append(buffer, static_cast<size_t>(n));
  }
  close(log);
  // The report is one write of the stdio buffer, so it forms one record
  // ("<priority>,<seq>,<time>,<flags>;<text>") whose inner line ends the
  // kernel shows as \x0a. Priority 10 is the user facility at level 2.
  const std::string pid_a = std::to_string(assert_run.pid);
  const std::string pid_m = std::to_string(message_run.pid);
  EXPECT_NE(records.find(";User space assert from process " + pid_a + ": x > 0\\x0aASSERT Executing " +
                         ASSERT_PROBE_SOURCE + ":17:int main(int, char**)\n"),
            std::string::npos)
      << records;
  EXPECT_NE(records.find(";User space assert from " + pid_m +
                         ": c != d\\x0avalue 7\\x0aASSERT Executing some/file.cpp:43:void g()\n"),
            std::string::npos)
      << records;
  EXPECT_EQ(records.rfind("10,", 0), 0u) << records;
}
