// What the process sets up before main, so that the program behaves alike on its platforms. Linked as an object:
// nothing refers to it by name.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <exception>

namespace {

const bool isRuntimeStarted = [] {
    // An exception that nobody catches ends the process without a text or a window of the C++ library's own, with the
    // status that the runtime's abort gives. What the program has printed until then still arrives where its output
    // goes.
    std::set_terminate([] {
        (void)fflush(stdout);
        constexpr UINT abnormalEnd = 3;
        TerminateProcess(GetCurrentProcess(), abnormalEnd);
    });
    // A line feed is written as it stands, so that the output is the same bytes everywhere. A stream that is closed
    // has no mode to be set, hence the results that nobody looks at.
    (void)_setmode(_fileno(stdout), _O_BINARY);
    (void)_setmode(_fileno(stderr), _O_BINARY);
    return true;
}();

} // namespace
