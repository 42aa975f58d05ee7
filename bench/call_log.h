// The log of a described machine: one line of JSON for each call of the program, in the order of the calls. Which
// fields a call has is said where the call is answered.
#pragma once

#include "host.h"

#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vornix::bench {

// Fields of one line, in the order in which they are added, each with a key of its own. They are kept as text: nearly
// every file of the machine sees this header, and the JSON library is a long one to compile.
class LogFields {
public:
    // A narrow path of the program is bytes of any kind; what is no UTF-8 in a text becomes U+FFFD.
    void Add(std::string_view key, std::string_view text);

    // A number or a flag. Not a function each: a literal text would rather turn to a bool than to a text.
    template <std::integral Value>
    void Add(std::string_view key, Value value) {
        if constexpr (std::same_as<Value, bool>) {
            AddJson(key, value ? "true" : "false");
        } else {
            AddJson(key, std::to_string(value));
        }
    }

    // `,"key":value` of each field.
    const std::string& Text() const { return text_; }

private:
    void AddJson(std::string_view key, std::string_view value);

    std::string text_;
};

class CallLog {
public:
    // Writes to the file, from its start; a null one keeps no log.
    explicit CallLog(std::unique_ptr<HostFile> file);

    // Numbers the line from 1 and writes it through at once, so that a process that is killed later leaves it. A log
    // that cannot be written ends the process: a check that reads half a log would draw false conclusions.
    void Write(std::string_view call, const LogFields& fields);

private:
    std::unique_ptr<HostFile> file_;
    std::uint64_t size_ = 0;
    std::uint64_t lines_ = 0;
};

} // namespace vornix::bench
