#pragma once

#include <string>

// The parsed command line. `ok` is false when the line was rejected (the
// usage has then been printed already).
struct CommandLineOptions {
  bool ok = true;
  std::string device;
  std::string corrupt;
  std::string volume;
  std::string action;
};

// Reads the options with getopt_long_only: "device", "corrupt", "volume",
// "action" (each with an argument) and "help". Prints the usage to standard
// error when it rejects the line.
CommandLineOptions ParseCommandLine(int argc, char* argv[]);

// The four usage lines, with `program` as the name of the tool.
void PrintUsage(const char* program);
