// What the process sets up before main, so that the program behaves here as on Windows. Linked as an object: nothing
// refers to it by name.
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace {

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
