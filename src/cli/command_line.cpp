#include "cli/command_line.h"

#include <getopt.h>

#include <cstdio>

void PrintUsage(const char* program) {
  fprintf(stderr, "Usage: %s [-d --device] <path> [-c --corrupt] <description-of-corruption> or\n\n",
          program);
  fprintf(stderr, "Usage: %s [-v --volume] <path> [-a --action] <description-of-action>\n\n", program);
  fprintf(stderr, "The corruption can be \"fat\", \"bitmap\" or \"upcase\".\n");
  fprintf(stderr,
          "The action can be \"truncate\", \"fallocate\", \"runtests\", \"filldisk\", \"fragdisk\" "
          "or \"filldir\".\n");
}

CommandLineOptions ParseCommandLine(int argc, char* argv[]) {
  static const option kOptions[] = {
      {"help", no_argument, nullptr, 'h'},
      {"device", required_argument, nullptr, 'd'},
      {"corrupt", required_argument, nullptr, 'c'},
      {"volume", required_argument, nullptr, 'v'},
      {"action", required_argument, nullptr, 'a'},
      {nullptr, 0, nullptr, 0},
  };

  CommandLineOptions options;
  optind = 0;  // full re-initialisation, so the parser may run more than once
  for (;;) {
    int c = getopt_long_only(argc, argv, "", kOptions, nullptr);
    if (c == -1) break;
    std::string* field = nullptr;
    switch (c) {
      case 'd': field = &options.device; break;
      case 'c': field = &options.corrupt; break;
      case 'v': field = &options.volume; break;
      case 'a': field = &options.action; break;
      case '?': options.ok = false; break;
      default: break;  // "help" and anything else are ignored
    }
    if (field != nullptr) {
      if (optarg == nullptr)
        options.ok = false;
      else
        *field = optarg;
    }
    if (!options.ok) break;
  }

  if (options.ok) {
    if (optind < argc)
      options.ok = false;  // words that are not options
    else if (options.volume.empty() && options.device.empty())
      options.ok = false;  // nothing to work on
  }
  if (!options.ok) PrintUsage(argv[0]);
  return options;
}
