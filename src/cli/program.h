#pragma once

// The whole program: parse the command line, seed the random generator, run
// the device branch and then the volume branch under one top-level handler.
// Returns the exit status: 0 success, 1 rejected command line (or a
// directory fill that could not create a file), -1 failure.
int RunProgram(int argc, char* argv[]);
