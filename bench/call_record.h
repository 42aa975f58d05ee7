// One call of the program on its way through the described machine: the fault that is due is taken at its start, its
// line is written at its end, and the last error that the program finds afterwards is the one that belongs to the call.
#pragma once

#include "call_log.h"
#include "faults.h"

#include <windows.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

namespace vornix::bench {

// How a call that reports through the last error went.
struct Outcome {
    bool Ok = true;
    // What the last error is afterwards: always given for a failure; absent for a success that leaves it as it was.
    std::optional<DWORD> LastError;
};

inline Outcome FailWith(DWORD error) {
    return {.Ok = false, .LastError = error};
}

class CallRecord {
public:
    // Takes the fault that is due to the call, pokes and touches, and ends the process where the call is to be killed
    // before it transfers anything. There must be a machine.
    explicit CallRecord(std::string_view call, std::initializer_list<std::string_view> paths = {});
    CallRecord(const CallRecord&) = delete;
    CallRecord& operator=(const CallRecord&) = delete;

    const FaultEffect& Effect() const { return effect_; }

    // Adds a field to the call's line, behind those that it already has.
    template <typename Value>
    void Add(const char* key, Value&& value) {
        fields_.Add(key, std::forward<Value>(value));
    }

    // Adds a mask or a code.
    void AddCode(const char* key, std::uint32_t code);

    // The last error, as the host's own call has just left it, is what the program is to find.
    void AdoptLastError();

    // Each of these writes the line and leaves the last error to the program; nothing may be done with the record after
    // it.
    void Finish();
    BOOL FinishWithOutcome(const Outcome& outcome);
    std::int32_t FinishWithStatus(std::int32_t status);

    // The whole of a call that answers with a status: the one that a fault gives, else that of answer().
    template <typename Answer>
    std::int32_t AnswerStatus(Answer answer) {
        if (effect_.Status) {
            return FinishWithStatus(static_cast<std::int32_t>(*effect_.Status));
        }
        const std::int32_t status = answer();
        return FinishWithStatus(status);
    }

private:
    std::string_view call_;
    DWORD lastError_;
    FaultEffect effect_;
    LogFields fields_;
};

// The end of a call that is killed, with the status that says so.
[[noreturn]] void EndKilled();

} // namespace vornix::bench
