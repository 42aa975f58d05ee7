// Paths of the program's calls as names of the host.
#include "host_paths.h"

#include <cstdint>

namespace vornix::platform {

namespace {

// What the bytes from 0x80 become when they are widened by their sign.
constexpr uint32_t firstWidenedByte = 0xFF80;
constexpr uint32_t lastWidenedByte = 0xFFFF;

void AppendUtf8(std::string& text, uint32_t point) {
    const auto append = [&text](uint32_t byte) { text.push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
    if (point < 0x80) {
        append(point);
    } else if (point < 0x800) {
        append(0xC0 | (point >> 6));
        append(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        append(0xE0 | (point >> 12));
        append(0x80 | ((point >> 6) & 0x3F));
        append(0x80 | (point & 0x3F));
    } else {
        append(0xF0 | (point >> 18));
        append(0x80 | ((point >> 12) & 0x3F));
        append(0x80 | ((point >> 6) & 0x3F));
        append(0x80 | (point & 0x3F));
    }
}

char LowerAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::string HostPath(LPCWSTR path) {
    std::string host;
    // A WCHAR is wider than its unit here; what lies above the low 16 bits does not exist on Windows.
    const auto unitAt = [path](size_t i) { return static_cast<uint32_t>(path[i]) & 0xFFFF; };
    for (size_t i = 0; unitAt(i) != 0; i++) {
        uint32_t point = unitAt(i);
        if (point >= 0xD800 && point <= 0xDBFF && unitAt(i + 1) >= 0xDC00 && unitAt(i + 1) <= 0xDFFF) {
            point = 0x10000 + ((point - 0xD800) << 10) + (unitAt(i + 1) - 0xDC00);
            i++;
        }
        if (point >= firstWidenedByte && point <= lastWidenedByte) {
            host.push_back(static_cast<char>(static_cast<unsigned char>(point & 0xFF)));
        } else {
            AppendUtf8(host, point);
        }
    }
    return host;
}

std::string FolderOfHostPath(const std::string& path) {
    const size_t nameEnd = path.find_last_not_of('/');
    if (nameEnd == std::string::npos) {
        return path.empty() ? "." : "/";
    }
    const size_t cut = path.find_last_of('/', nameEnd);
    return cut == std::string::npos ? "." : path.substr(0, cut + 1);
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); i++) {
        if (LowerAscii(a[i]) != LowerAscii(b[i])) {
            return false;
        }
    }
    return true;
}

} // namespace vornix::platform
