// Starts the program on a described machine: vornix-bench DIR ARGS... runs `vornix ARGS...` on the machine in DIR.
#include "cli/command_line.h"
#include "host.h"
#include "machine.h"
#include "run_end.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace vornix::bench;

// Ends the process before the program has started. Everything that the program prints comes after this point, so a line
// of this kind is never mistaken for one of its own.
[[noreturn]] void RefuseStart(std::string reason) {
    // One line, whatever stands in a value that is quoted.
    for (char& letter : reason) {
        if (static_cast<unsigned char>(letter) < 0x20) {
            letter = ' ';
        }
    }
    std::fprintf(stderr, "vornix-bench: %s\n", reason.c_str());
    std::exit(2);
}

void BuildMachine(const char* folder) {
    try {
        InstallMachine(LoadMachine(Utf8FromNarrow(folder)));
    } catch (const DescriptionError& error) {
        RefuseStart(error.what());
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        RefuseStart("usage: vornix-bench DIR ARGS...");
    }
    PrepareHost();
    BuildMachine(argv[1]);
    if (!RegisterRunEnd()) {
        RefuseStart("there is no room for an exit routine");
    }
    char name[] = "vornix";
    std::vector<char*> arguments = {name};
    arguments.insert(arguments.end(), argv + 2, argv + argc);
    arguments.push_back(nullptr);
    std::exit(vornix::RunCommandLine(argc - 1, arguments.data()));
}
