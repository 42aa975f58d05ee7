// Text as it crosses the described machine: wide and UTF-8 strings, hexadecimal bytes, codes. Not for the program,
// which widens its paths in a way of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vornix::bench {

// Reads the 16-bit units of a wide string as UTF-16, on either width of wchar_t, and gives UTF-8. A surrogate that
// stands alone becomes U+FFFD. A null pointer gives the empty string.
std::string Utf8FromWide(const wchar_t* text);

// The 16-bit units of a UTF-8 text, one to a wchar_t. What is no UTF-8 becomes U+FFFD.
std::wstring WideFromUtf8(std::string_view text);

// Whether the text is well-formed UTF-8 (RFC 3629).
bool IsUtf8(std::string_view text);

// Two lower-case digits a byte.
std::string HexFromBytes(const std::uint8_t* bytes, std::size_t count);

// Nothing if the text is no whole number of two-digit bytes.
std::optional<std::vector<std::uint8_t>> BytesFromHex(std::string_view text);

// A mask or a code as the log writes it: "0x%08X".
std::string FormatCode(std::uint32_t code);

} // namespace vornix::bench
