// The command line of vrnx.
#pragma once

#include <string>
#include <vector>

namespace vrnx_cli {

// Runs the command that the arguments, without the program's own name, ask for; gives the exit status.
int RunCommandLine(const std::vector<std::string>& arguments);

} // namespace vrnx_cli
