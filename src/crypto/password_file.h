// The password file: how its bytes become a password.
#pragma once

#include <string>

namespace vornix {

// Reads the password out of the file at `path`: all its bytes, but for any run of CR and LF at the very end. The bytes
// are opaque: no character set is assumed and no byte-order mark skipped. The caller owns the string and wipes it.
//
// Ends the process where the file cannot be opened, holds more than 1,048,576 bytes, line ends included, or leaves
// nothing after trimming.
std::string ReadPasswordFile(const std::string& path);

} // namespace vornix
