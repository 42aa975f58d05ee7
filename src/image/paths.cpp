// Rules about paths of image files.
#include "image/paths.h"

#include <windows.h>
#include <array>
#include <cstdint>
#include <stdlib.h>
#include <string.h>

namespace vornix {

std::wstring WidenPath(const std::string& narrow) {
    std::wstring wide;
    wide.reserve(narrow.size());
    for (const char byte : narrow) {
        // NOLINTNEXTLINE(bugprone-signed-char-misuse): the sign is extended on purpose
        const auto extended = static_cast<int16_t>(static_cast<signed char>(byte));
        wide.push_back(static_cast<wchar_t>(static_cast<uint16_t>(extended)));
    }
    return wide;
}

std::string DirectoryOfPath(const std::string& path) {
    const size_t separator = path.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

std::string FileNameOfPath(const std::string& path) {
    return path.substr(DirectoryOfPath(path).size());
}

bool PathExists(const std::string& path) {
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::optional<std::string> ResolvePath(const std::string& path) {
    std::array<char, 260> absolute;
    if (_fullpath(absolute.data(), path.c_str(), absolute.size()) == nullptr) {
        return std::nullopt;
    }
    return absolute.data();
}

bool IsSamePath(const std::string& a, const std::string& b) {
    return _stricmp(a.c_str(), b.c_str()) == 0;
}

} // namespace vornix
