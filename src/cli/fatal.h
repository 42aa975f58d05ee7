// The one report through which a failure ends the process.
#pragma once

#include <windows.h>

namespace vornix {

// Writes the failure to standard error and ends the process with status 1.
//
// `status` is the negative NTSTATUS of a CNG call, shown as such, or 0 for every other failure, which shows the
// calling thread's last error instead. The last error is not cleared beforehand, so behind a failure that no system
// call reported it is whatever the latest one left.
//
// The process ends through the ordinary exit of the runtime: the registered exit routines run and the streams are
// flushed, but nothing is unwound, so no destructor runs, no file is deleted and no handle is closed by the program.
[[noreturn]] void Fatal(const char* message, LONG status);

} // namespace vornix
