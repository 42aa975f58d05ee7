// Watches the ordinary end of a run. See run_end.h. The executables of the described machine are linked with
// --wrap=exit, which hands every exit() to the first of the two functions below; the second is the real one.
#include "run_end.h"

#include "call_record.h"
#include "machine.h"

#include <cstdlib>

extern "C" {
[[noreturn]] void __real_exit(int code);
[[noreturn]] void __wrap_exit(int code);
}

namespace vornix::bench {

namespace {

// The status that the process is ending with.
int exitCode = 0;

void FinishRun() {
    Machine& machine = *CurrentMachine();
    if (machine.ChangeTracker != nullptr) {
        machine.ChangeTracker->Save();
    }
    LogFields fields;
    fields.Add("code", exitCode);
    machine.Log.Write("exit", fields);
}

} // namespace

bool RegisterRunEnd() {
    return std::atexit(FinishRun) == 0;
}

} // namespace vornix::bench

void __wrap_exit(int code) {
    vornix::bench::exitCode = code;
    if (vornix::bench::CurrentMachine() != nullptr) {
        // A call that a fault may take, like any other; only its line waits until the exit routines have run.
        const vornix::bench::CallRecord call("exit");
    }
    __real_exit(code);
}
