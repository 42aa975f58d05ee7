// What the process sets up before main, so that the program behaves alike on its platforms. Linked as an object:
// nothing refers to it by name.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <exception>

#ifdef __MINGW32__
// The runtime of mingw-w64 asks for this whether it is to replace arguments with wildcards by the names of files. An
// argument is what was typed.
extern "C" {
extern int _dowildcard;
int _dowildcard = 0;
}
#endif

namespace {

// A library that is not in memory yet comes from the system and from nowhere else. Otherwise one of its name that lies
// beside the executable, in a folder of downloads perhaps, runs with the rights of an administrator. The call cannot
// fail with this argument.
#ifdef __MINGW32__
// In front of the runtime library's own start, too: it draws the number that guards the stack from a provider, which
// needs libraries that lie about as well.
__attribute__((constructor(101)))
#endif
void TakeLibrariesFromTheSystem() {
    (void)SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
}

const bool isRuntimeStarted = [] {
    TakeLibrariesFromTheSystem();
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
