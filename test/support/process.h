#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace testsupport {

struct ProcessResult {
  int exit_status = -1;  // exit code, or -1 when the process was killed
  int signal = 0;        // the signal that killed it, else 0
  pid_t pid = 0;
  std::string out;
  std::string err;
};

struct ProcessOptions {
  std::string input;                  // written to the child's standard input
  std::optional<uid_t> user;          // drop to this user (and its group) before exec
  std::vector<std::string> env;       // extra NAME=value entries
  int timeout_seconds = 600;          // killed with SIGKILL after this
};

// Runs argv[0] (searched in PATH) with the given arguments and collects its
// output. A program built for the target of a cross build runs under the
// emulator (see TargetCommand). Never throws for a failing child; throws
// std::runtime_error when the child cannot be started at all.
ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// The command that runs target programs on this host: the cross build's
// emulator (qemu-user), or empty in a native build.
std::vector<std::string> EmulatorCommand();

// argv itself, or argv behind EmulatorCommand() when argv[0] is a path to an
// executable built for the same target as this test program and the build
// is a cross build. Programs found in PATH (host tools) run as they are.
std::vector<std::string> TargetCommand(const std::vector<std::string>& argv);

// The built qvexfat-test binary.
const std::string& ToolPath();

// Runs the built tool with these arguments (argv[0] is ToolPath()).
ProcessResult RunTool(const std::vector<std::string>& args, const ProcessOptions& options = {});

// Splits text at "\n"; a final line without "\n" is kept, a trailing "\n"
// adds no empty line.
std::vector<std::string> Lines(const std::string& text);

// Runs a shell command line and throws when it fails.
void RunShell(const std::string& command);

}  // namespace testsupport
