// The two scans over the arguments, and the conversion of a number option.
#include "cli/options.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string.h>

namespace vornix {

namespace {

// The place of the first of the arguments before `end` that equals `name`; `end` where none does.
int FindArgument(char** argv, int end, const char* name) {
    int i = 1;
    while (i < end && _stricmp(argv[i], name) != 0) {
        ++i;
    }
    return i;
}

} // namespace

std::string GetOptionValue(int argc, char** argv, const char* name, const char* defaultValue) {
    const int place = FindArgument(argv, argc - 1, name);
    return place < argc - 1 ? argv[place + 1] : defaultValue;
}

bool HasFlag(int argc, char** argv, const char* name) {
    return FindArgument(argv, argc, name) < argc;
}

int ParseInt(const std::string& text) {
    // The standard conversion to int differs between runtimes in the text of its exceptions; these are the program's.
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) {
        throw std::invalid_argument("invalid stoi argument");
    }
    if (errno == ERANGE || value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
        throw std::out_of_range("stoi argument out of range");
    }
    return static_cast<int>(value);
}

} // namespace vornix
