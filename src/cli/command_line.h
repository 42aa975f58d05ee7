// The command line as a whole: which command runs, and with what. The scanning of single options is in options.h.
#pragma once

namespace vornix {

// Runs the one command that argv[1] names and gives the process's exit status: 0 when the command came back, 1 when
// the command line was not enough to start one and the usage text was printed instead.
//
// A command that fails does not come back: it ends the process with status 1. A number option that is no 32-bit number
// leaves as an exception that nobody catches.
int RunCommandLine(int argc, char** argv);

} // namespace vornix
