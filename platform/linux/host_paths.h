// Paths of the program's calls as names of the host. A backslash is an ordinary character of a Linux name and is not
// translated.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace vornix::platform {

// The units 0xFF80 to 0xFFFF are bytes that the program widened by their sign, and are those bytes again: a name on
// Linux is bytes, and the file is the one that the user named. All other units are read as UTF-16 and written as UTF-8;
// a surrogate without its partner is written as the three bytes of its own value.
std::string HostPath(LPCWSTR path);

// The folder that holds the path's last name: everything before the last '/', "." for a bare name, "/" for the root.
std::string FolderOfHostPath(const std::string& path);

// Compares as Windows compares the names of devices: without regard to ASCII case.
bool EqualsIgnoringCase(std::string_view a, std::string_view b);

} // namespace vornix::platform
