// Text that comes from disks, which may hold anything, made fit for a terminal and for JSON.
#pragma once

#include <string>

namespace vornix::disks_tool {

// The same text as valid UTF-8: each byte that is part of none becomes U+FFFD, as the Unicode standard recommends.
std::string RepairUtf8(const std::string& text);

// The text as it can be shown on a line of a terminal: valid UTF-8 in which '?' stands for each control character and
// for each that changes the direction or the lines of what follows; plain ASCII unless `isUtf8`.
std::string MakePrintable(const std::string& text, bool isUtf8);

// The characters of valid UTF-8.
size_t CountCharacters(const std::string& text);

} // namespace vornix::disks_tool
