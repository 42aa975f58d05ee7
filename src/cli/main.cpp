// The entry point, and nothing else: everything that it starts is in the library, where tests and the described
// machine link it as well.
#include "cli/command_line.h"

int main(int argc, char** argv) {
    return vornix::RunCommandLine(argc, argv);
}
