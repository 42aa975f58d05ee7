// How a failure is described: struct vrnx_error, filled without any allocation, so that running out of memory can be
// described too. It is not for deciding what a failure is.
#pragma once

#include "exported.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vrnx {

// Builds the one line of an error's text. What does not fit is cut off.
class Text {
public:
    explicit Text(vrnx_error& error) : error_(error) {}
    Text& operator<<(std::string_view text);
    Text& operator<<(uint64_t number);
    Text& AddPath(std::string_view path); // one of absurd length by its end, so that there is room for the rest
    void AddSystemError(int systemError); // ": " and the system's own words, if it said something

private:
    vrnx_error& error_;
    size_t length_ = 0;
};

// Fills everything but the text.
int Begin(vrnx_error& error, int code, uint32_t level = VRNX_NO_LEVEL, int systemError = 0);

// A failure that concerns no file.
int Report(vrnx_error& error, int code, std::string_view text);

// A failure that concerns a file: "PATH: TEXT", and what the system said. Without a text the code's own words.
int ReportFile(vrnx_error& error, int code, uint32_t level, const std::string& path, std::string_view text = {},
               int systemError = 0);

} // namespace vrnx
