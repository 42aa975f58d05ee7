// Rules about paths of image files.
#pragma once

#include <optional>
#include <string>

namespace vornix {

// A narrow path as a wide one of the same length: each byte is sign-extended to one 16-bit unit, with no code page in
// between. A byte of 0x80 and above therefore does not become the character that it stands for, so that on Windows only
// plain ASCII reaches the file that was meant. Every open and every rename widens in this way, so that what was written
// under a name is found under it again.
std::wstring WidenPath(const std::string& narrow);

// Everything up to and including the last backslash or forward slash; empty where there is neither. A colon separates
// nothing here, although it makes a base name unacceptable elsewhere: a drive-relative path has no folder part.
std::string DirectoryOfPath(const std::string& path);

// What stands behind the folder part. A colon does not cut.
std::string FileNameOfPath(const std::string& path);

// Whether something, a folder included, stands at `path`. Asked with the narrow path itself, so that beyond ASCII this
// and an open through WidenPath may look at different names. Any failure of the question counts as absence.
bool PathExists(const std::string& path);

// `path` made absolute the way the platform's runtime does it. Empty where that fails, for one thing where the result
// has 260 bytes or more.
std::optional<std::string> ResolvePath(const std::string& path);

// Whether two paths are the same text but for the case of ASCII letters.
bool IsSamePath(const std::string& a, const std::string& b);

} // namespace vornix
