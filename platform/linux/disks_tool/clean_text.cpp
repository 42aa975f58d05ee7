// Text that comes from disks, made fit for a terminal and for JSON.
#include "clean_text.h"

#include <cstddef>
#include <cstdint>

namespace vornix::disks_tool {

namespace {

constexpr const char* replacement = "\xEF\xBF\xBD";

// The well-formed sequences of the Unicode standard (table 3-7): what a first byte asks of the second.
struct Sequence {
    size_t Length = 0; // 0: no sequence begins with this byte
    unsigned char SecondFrom = 0x80;
    unsigned char SecondTo = 0xBF;
};

Sequence FindSequence(unsigned char first) {
    if (first < 0x80) {
        return {1};
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return {2};
    }
    if (first >= 0xE0 && first <= 0xEF) {
        return {3, static_cast<unsigned char>(first == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(first == 0xED ? 0x9F : 0xBF)};
    }
    if (first >= 0xF0 && first <= 0xF4) {
        return {4, static_cast<unsigned char>(first == 0xF0 ? 0x90 : 0x80),
                static_cast<unsigned char>(first == 0xF4 ? 0x8F : 0xBF)};
    }
    return {};
}

// The bytes of the sequence at `position`, or 0 where they are none; then `bad` is how many of them make one mistake.
size_t MeasureSequence(const std::string& text, size_t position, size_t& bad) {
    const auto byteAt = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const Sequence sequence = FindSequence(byteAt(position));
    bad = 1;
    if (sequence.Length == 0) {
        return 0;
    }
    for (size_t i = 1; i < sequence.Length; i++, bad++) {
        const unsigned char from = i == 1 ? sequence.SecondFrom : 0x80;
        const unsigned char to = i == 1 ? sequence.SecondTo : 0xBF;
        if (position + i >= text.size() || byteAt(position + i) < from || byteAt(position + i) > to) {
            return 0;
        }
    }
    return sequence.Length;
}

uint32_t Decode(const std::string& text, size_t position, size_t length) {
    const auto first = static_cast<unsigned char>(text[position]);
    uint32_t value = length == 1 ? first : first & (0x7Fu >> length);
    for (size_t i = 1; i < length; i++) {
        value = value << 6 | (static_cast<unsigned char>(text[position + i]) & 0x3Fu);
    }
    return value;
}

bool IsControl(uint32_t character) {
    return character < 0x20 || (character >= 0x7F && character <= 0x9F) || character == 0x061C ||
           (character >= 0x200B && character <= 0x200F) || (character >= 0x2028 && character <= 0x202E) ||
           (character >= 0x2060 && character <= 0x2069) || character == 0xFEFF ||
           (character >= 0xFFF9 && character <= 0xFFFB) || (character >= 0xE0000 && character <= 0xE007F);
}

} // namespace

std::string RepairUtf8(const std::string& text) {
    std::string repaired;
    for (size_t i = 0; i < text.size();) {
        size_t bad = 0;
        const size_t length = MeasureSequence(text, i, bad);
        if (length == 0) {
            repaired += replacement;
            i += bad;
        } else {
            repaired.append(text, i, length);
            i += length;
        }
    }
    return repaired;
}

std::string MakePrintable(const std::string& text, bool isUtf8) {
    const std::string repaired = RepairUtf8(text);
    std::string printable;
    for (size_t i = 0; i < repaired.size();) {
        size_t bad = 0;
        const size_t length = MeasureSequence(repaired, i, bad);
        if (IsControl(Decode(repaired, i, length)) || (length > 1 && !isUtf8)) {
            printable.push_back('?');
        } else {
            printable.append(repaired, i, length);
        }
        i += length;
    }
    return printable;
}

size_t CountCharacters(const std::string& text) {
    size_t count = 0;
    for (const char c : text) {
        count += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

} // namespace vornix::disks_tool
