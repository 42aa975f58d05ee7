// The commands of vrnx. Each prints its result on the console and gives the exit status; whether the result could be
// written is its caller's to see.
#pragma once

#include "console.h"

#include <map>
#include <string>
#include <vector>

namespace vrnx_cli {

// What stands behind a command's name. Every option is one that the command knows.
struct Arguments {
    std::vector<std::string> operands;
    std::map<std::string, std::vector<std::string>> options; // values by the option's name; "" of one without a value

    bool Has(const std::string& name) const { return options.contains(name); }

    // The value of an option; nullptr where it was not given.
    const std::string* Value(const std::string& name) const;

    // All values of an option that may be given several times.
    std::vector<std::string> Values(const std::string& name) const;
};

// Thrown where the arguments alone show that they are wrong.
struct UsageError {
    std::string text;
};

int RunInfo(const Arguments& arguments, Console& console);
int RunList(const Arguments& arguments, Console& console);
int RunCheck(const Arguments& arguments, Console& console);
int RunDiff(const Arguments& arguments, Console& console);
int RunMap(const Arguments& arguments, Console& console);
int RunExport(const Arguments& arguments, Console& console);

} // namespace vrnx_cli
