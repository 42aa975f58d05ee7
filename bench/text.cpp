// Conversions between the texts of the program's calls and those of a description and a log. See text.h.
#include "text.h"

#include <cstdio>

namespace vornix::bench {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool IsHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void AppendUtf8(std::string& out, char32_t point) {
    const auto append = [&out](char32_t byte) { out.push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
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

// One code point off the front of the text; nothing, with one byte taken, where no well-formed sequence stands there.
std::optional<char32_t> TakeCodePoint(std::string_view& text) {
    const auto byteAt = [&text](std::size_t index) {
        return static_cast<char32_t>(static_cast<unsigned char>(text[index]));
    };
    const char32_t lead = byteAt(0);
    std::size_t length = 1;
    char32_t point = lead;
    char32_t lowest = 0;
    if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        point = lead & 0x07;
        lowest = 0x10000;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        point = lead & 0x0F;
        lowest = 0x800;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        point = lead & 0x1F;
        lowest = 0x80;
    } else if (lead >= 0x80) {
        text.remove_prefix(1);
        return std::nullopt;
    }
    bool wellFormed = text.size() >= length;
    for (std::size_t index = 1; wellFormed && index < length; ++index) {
        wellFormed = (byteAt(index) & 0xC0) == 0x80;
        point = (point << 6) | (byteAt(index) & 0x3F);
    }
    const bool surrogate = IsHighSurrogate(point) || IsLowSurrogate(point);
    if (!wellFormed || point < lowest || point > 0x10FFFF || surrogate) {
        text.remove_prefix(1);
        return std::nullopt;
    }
    text.remove_prefix(length);
    return point;
}

int HexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

} // namespace

std::string Utf8FromWide(const wchar_t* text) {
    std::string out;
    if (text == nullptr) {
        return out;
    }
    while (*text != L'\0') {
        // Masked, since a unit that came about by sign extension is wider than 16 bits in a 4-byte wchar_t.
        const char32_t unit = static_cast<char32_t>(*text++) & 0xFFFF;
        const char32_t next = static_cast<char32_t>(*text) & 0xFFFF;
        if (IsHighSurrogate(unit) && IsLowSurrogate(next)) {
            AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            ++text;
        } else {
            AppendUtf8(out, IsHighSurrogate(unit) || IsLowSurrogate(unit) ? replacement : unit);
        }
    }
    return out;
}

std::wstring WideFromUtf8(std::string_view text) {
    std::wstring out;
    while (!text.empty()) {
        const char32_t point = TakeCodePoint(text).value_or(replacement);
        if (point < 0x10000) {
            out.push_back(static_cast<wchar_t>(point));
        } else {
            out.push_back(static_cast<wchar_t>(0xD800 + ((point - 0x10000) >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
        }
    }
    return out;
}

bool IsUtf8(std::string_view text) {
    while (!text.empty()) {
        if (!TakeCodePoint(text)) {
            return false;
        }
    }
    return true;
}

std::string HexFromBytes(const std::uint8_t* bytes, std::size_t count) {
    constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * count);
    for (std::size_t index = 0; index < count; ++index) {
        out.push_back(digits[bytes[index] >> 4]);
        out.push_back(digits[bytes[index] & 0x0F]);
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> BytesFromHex(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t index = 0; index < text.size(); index += 2) {
        const int high = HexDigit(text[index]);
        const int low = HexDigit(text[index + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

std::string FormatCode(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned int>(code));
    return text;
}

} // namespace vornix::bench
