// Text out of bytes and numbers, and a number out of text.

#include "text.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace vrnx_cli {

size_t Utf8SequenceLength(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    auto byteAt = [&](size_t at) { return static_cast<uint8_t>(text[at]); };
    uint8_t first = byteAt(0);
    if (first < 0x80) {
        return 1;
    }
    size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    for (size_t at = 1; at < length; at++) {
        if ((byteAt(at) & 0xC0) != 0x80) {
            return 0;
        }
    }
    uint8_t second = byteAt(1);
    bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    bool surrogate = first == 0xED && second >= 0xA0;
    bool beyondUnicode = first == 0xF4 && second >= 0x90;
    return overlong || surrogate || beyondUnicode ? 0 : length;
}

std::string Printable(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        size_t length = Utf8SequenceLength(text);
        auto first = static_cast<uint8_t>(text[0]);
        // The second set of control characters lies from U+0080 to U+009F.
        bool control = first < 0x20 || first == 0x7F || (first == 0xC2 && static_cast<uint8_t>(text[1]) < 0xA0);
        if (length == 0 || control) {
            std::array<char, 8> escape = {};
            std::snprintf(escape.data(), escape.size(), "\\x%02x", first);
            printable += escape.data();
            length = 1;
        } else {
            printable += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return printable;
}

std::string Hexadecimal(const uint8_t* bytes, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t at = 0; at < length; at++) {
        text += digits[bytes[at] >> 4];
        text += digits[bytes[at] & 15];
    }
    return text;
}

std::string EpochText(uint64_t epoch) {
    std::array<char, 24> text = {};
    std::snprintf(text.data(), text.size(), "%llX", static_cast<unsigned long long>(epoch));
    return text.data();
}

std::string SizeText(uint64_t bytes) {
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " bytes";
    }
    double size = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; size >= 1024 && unit < 3; unit++) {
        size /= 1024;
    }
    std::array<char, 40> text = {};
    std::snprintf(text.data(), text.size(), "%.2f %s", size, units[unit]);
    return text.data();
}

std::string BytesText(uint64_t bytes) {
    return bytes < 1024 ? SizeText(bytes) : std::to_string(bytes) + " bytes (" + SizeText(bytes) + ")";
}

std::string Count(uint64_t number, const char* noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

bool ParseNumber(std::string_view text, uint64_t least, uint64_t most, uint64_t& number) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < least || value > most) {
        return false;
    }
    number = value;
    return true;
}

} // namespace vrnx_cli
