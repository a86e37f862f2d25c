#include "cli/program.h"

int main(int argc, char* argv[]) { return RunProgram(argc, argv); }
