#include "cli/program.h"

// The program and its version, for whoever reads the file: the damage
// campaign names the tool it tried by it. Nothing prints it.
[[gnu::used, gnu::retain]] static const char kIdentification[] = "@(#)qvexfat-test " QVEXFAT_VERSION;

int main(int argc, char* argv[]) { return RunProgram(argc, argv); }
