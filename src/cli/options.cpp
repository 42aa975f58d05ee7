// The two scans over the arguments, and the conversion of a number option.
#include "cli/options.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string.h>

namespace vornix {

std::string GetOptionValue(int argc, char** argv, const char* name, const char* defaultValue) {
    for (int i = 1; i < argc - 1; ++i) {
        if (_stricmp(argv[i], name) == 0) {
            return argv[i + 1];
        }
    }
    return defaultValue;
}

bool HasFlag(int argc, char** argv, const char* name) {
    for (int i = 1; i < argc; ++i) {
        if (_stricmp(argv[i], name) == 0) {
            return true;
        }
    }
    return false;
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
