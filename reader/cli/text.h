// Bytes as text for people and for programs: names of files and images hold whatever they hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vrnx_cli {

// The length of the UTF-8 sequence (RFC 3629) that the text begins with; 0 where it begins with none.
size_t Utf8SequenceLength(std::string_view text);

// The text for a terminal: control characters, and bytes that are no UTF-8, as \xNN, so that a name in an image cannot
// steer the terminal that it is shown in.
std::string Printable(std::string_view text);

// Bytes in lower-case hexadecimal.
std::string Hexadecimal(const uint8_t* bytes, size_t length);

// The epoch of an image as the program prints it.
std::string EpochText(uint64_t epoch);

// A number of bytes for people: "512 bytes", "1.50 GiB".
std::string SizeText(uint64_t bytes);

// The same with the exact number: "1610612736 bytes (1.50 GiB)".
std::string BytesText(uint64_t bytes);

// "1 chunk", "2 chunks".
std::string Count(uint64_t number, const char* noun);

// A whole decimal number from `least` to `most`, and nothing else; false where it is none.
bool ParseNumber(std::string_view text, uint64_t least, uint64_t most, uint64_t& number);

} // namespace vrnx_cli
