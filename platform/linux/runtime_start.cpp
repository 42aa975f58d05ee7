// What the process sets up before main, so that the program behaves here as on Windows. Linked as an object: nothing
// refers to it by name.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <initializer_list>

namespace {

// A standard stream that whoever started the process has closed is one that leads nowhere, as on Windows. Left closed,
// its number would be given to the first image or disk that is opened, and what is printed would be written there. In
// front of everything else, since anything else may open a file.
__attribute__((constructor(101))) void OpenStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // An open takes the lowest number that is free, which is this one.
        int taken = open("/dev/null", stream == STDIN_FILENO ? O_RDONLY : O_WRONLY);
        if (taken < 0) {
            // Where there are no devices the number is taken all the same, by what can be neither read nor written.
            taken = open("/", O_RDONLY | O_DIRECTORY);
        }
        if (taken < 0) {
            _exit(EXIT_FAILURE);
        }
    }
}

const bool isRuntimeStarted = [] {
    // An exception that nobody catches ends the process without a text of the C++ library's own. What the program has
    // printed until then still arrives where its output goes.
    std::set_terminate([] {
        (void)std::fflush(stdout);
        std::abort();
    });
    // A write beyond a size limit and a write to a closed pipe are failed calls on Windows, not the end of the process.
    (void)std::signal(SIGXFSZ, SIG_IGN);
    (void)std::signal(SIGPIPE, SIG_IGN);
    // Wide names are printed as UTF-8. Only this category: numbers keep the form that the program's texts have.
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    return true;
}();

} // namespace
