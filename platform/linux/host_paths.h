// Paths of the program's calls as names of the host. A backslash is an ordinary character of a Linux name and is not
// translated.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace vornix::platform {

// The 16-bit units read as UTF-16 and written as UTF-8. A surrogate without its partner is written as the three bytes
// of its own value, so that any path has a name of its own on the host.
std::string HostPath(LPCWSTR path);

// The folder that holds the path's last name: everything before the last '/', "." for a bare name, "/" for the root.
std::string FolderOfHostPath(const std::string& path);

// Compares as Windows compares the names of devices: without regard to ASCII case.
bool EqualsIgnoringCase(std::string_view a, std::string_view b);

} // namespace vornix::platform
