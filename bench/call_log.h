// The log of a described machine: one line of JSON for each call of the program, in the order of the calls. Which
// fields a call has is said where the call is answered.
#pragma once

#include "host.h"

#include <cstdint>
#include <memory>
#include <string_view>

#include <nlohmann/json.hpp>

namespace vornix::bench {

// Fields of one line, in the order in which they are added.
using LogFields = nlohmann::ordered_json;

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
