// How an answer refuses what it does not support: the process ends and says what was asked for. A call that
// succeeded without doing what its flag says would be found much later, by somebody who lost data.
#pragma once

namespace vornix::platform {

// Prints one line, "vornix: <call>: <what> is not supported on this platform", to standard error, with the value in
// hexadecimal behind <what> where one is given, and aborts.
[[noreturn]] void EndUnsupported(const char* call, const char* what);
[[noreturn]] void EndUnsupported(const char* call, const char* what, unsigned long long value);

} // namespace vornix::platform
