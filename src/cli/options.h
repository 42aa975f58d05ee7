// Lookups of single options among the arguments. Nothing here knows which options exist or rejects an unknown one: an
// argument that no lookup asks for is ignored.
//
// Names match without regard to the case of the ASCII letters. Both scans begin at argv[1], the command word.
#pragma once

#include <string>

namespace vornix {

// Gives the argument behind the first argument that equals `name`, whatever it looks like, also when it begins with
// "--"; a copy of `defaultValue` when there is none. The very last argument is never taken for a name, since nothing
// stands behind it.
std::string GetOptionValue(int argc, char** argv, const char* name, const char* defaultValue);

// True when any argument equals `name`, the last one and the value of another option included.
bool HasFlag(int argc, char** argv, const char* name);

// Reads a decimal number of 32-bit range: blanks at the start and one sign are taken, and whatever follows the digits
// is ignored. Throws std::invalid_argument where there is no digit, std::out_of_range where the value does not fit.
int ParseInt(const std::string& text);

} // namespace vornix
