// How a run of the product ends otherwise than by its own choice: a signal that interrupts it, and output that did not
// arrive. Linked into vornix alone, as an object: nothing refers to it by name.
//
// A signal is taken by a thread of its own. A handler would run inside whatever the program is doing, where nothing may
// be printed, and a flag would be looked at when the call that the program waits in comes back, which on a dead network
// file system is never.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "work_account.h"

using namespace vornix::platform;

namespace {

using Clock = std::chrono::steady_clock;

// How long an interrupted run waits for what may never come: the end of a call that changes a name, the reader of its
// output.
constexpr std::chrono::seconds patience{2};

sigset_t watchedSignals;

// Ends the process as the signal does by itself: what waits for it sees by which one. The first process of a container
// is spared that, and ends with the status that a shell shows for it.
[[noreturn]] void EndBySignal(int number) {
    constexpr int statusOfSignals = 128;
    (void)signal(number, SIG_DFL);
    sigset_t one;
    (void)sigemptyset(&one);
    (void)sigaddset(&one, number);
    (void)pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    (void)raise(number);
    _exit(statusOfSignals + number);
}

// Hands on what was printed, unless nobody takes it.
void HandOnOutput() {
    const Clock::time_point deadline = Clock::now() + patience;
    while (ftrylockfile(stdout) != 0) {
        if (Clock::now() >= deadline) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    struct pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&output, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) == 1) {
        (void)std::fflush(stdout);
    }
    funlockfile(stdout);
}

// Past the C library's stream, whose lock the program may hold for as long as nobody reads.
void TellWhatIsLeft(int number, const WorkAccount& account) {
    const char* const name = number == SIGINT ? "SIGINT" : number == SIGTERM ? "SIGTERM" : "SIGHUP";
    if (!account.File.empty()) {
        (void)dprintf(STDERR_FILENO, "INTERRUPTED: ended by %s; the file %s is left unfinished\n", name,
                      account.File.c_str());
    } else if (account.IsDiskWritten) {
        (void)dprintf(STDERR_FILENO, "INTERRUPTED: ended by %s; the disk %s is left partly written\n", name,
                      account.Disk.c_str());
    } else {
        (void)dprintf(STDERR_FILENO, "INTERRUPTED: ended by %s; nothing is left unfinished\n", name);
    }
}

void* WaitForInterruption(void*) {
    int number = 0;
    while (sigwait(&watchedSignals, &number) != 0) {
    }
    // The next one ends the process at once: whoever sends a second one does not want to wait.
    (void)pthread_sigmask(SIG_UNBLOCK, &watchedSignals, nullptr);
    WorkAccount& account = AccountOfRun();
    // Never given back. Where somebody else holds it for so long, his call hangs, and what is entered is all there is.
    (void)account.Mutex.try_lock_for(patience);
    HandOnOutput();
    TellWhatIsLeft(number, account);
    EndBySignal(number);
}

// A signal that is ignored stays so: that is how nohup keeps a run from the end of its terminal.
sigset_t SignalsToWatch() {
    sigset_t signals;
    (void)sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction present {};
        if (sigaction(number, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) {
            (void)sigaddset(&signals, number);
        }
    }
    return signals;
}

// Without a thread the signals do what they do by themselves.
void WatchForInterruption() {
    watchedSignals = SignalsToWatch();
    pthread_attr_t attributes;
    if (sigisemptyset(&watchedSignals) == 1 || pthread_attr_init(&attributes) != 0) {
        return;
    }
    constexpr size_t stackSize = size_t{256} << 10;
    (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    (void)pthread_attr_setstacksize(&attributes, stackSize);
    // In every thread that is made from here on as well, so that no call of the program is cut short.
    sigset_t before;
    (void)pthread_sigmask(SIG_BLOCK, &watchedSignals, &before);
    pthread_t thread{};
    if (pthread_create(&thread, &attributes, WaitForInterruption, nullptr) != 0) {
        (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    (void)pthread_attr_destroy(&attributes);
}

// The last exit routine of all. The program does not look at what becomes of its output, whose loss changes nothing of
// its work; where the output is the work, the run has failed.
void CloseOutput(int status, void*) {
    WorkAccount& account = AccountOfRun();
    if (status == 0) {
        const std::lock_guard<std::timed_mutex> lock(account.Mutex);
        account.File.clear();
        account.Disk.clear();
        account.IsDiskWritten = false;
    }
    errno = 0;
    const bool isFlushed = std::fflush(stdout) == 0;
    const int reason = errno;
    if (isFlushed && std::ferror(stdout) == 0) {
        return;
    }
    const bool isAllTheWork = status == 0 && !account.HasOtherWork;
    if (isAllTheWork && reason == EPIPE) {
        // A reader that has seen enough, such as head: the end of a list is the same for every tool.
        EndBySignal(SIGPIPE);
    }
    std::fprintf(stderr, "vornix: part of the output was lost: %s\n",
                 isFlushed ? "an earlier write failed" : std::strerror(reason));
    if (isAllTheWork) {
        _exit(EXIT_FAILURE);
    }
}

const bool isWatched = [] {
    WatchForInterruption();
    return on_exit(CloseOutput, nullptr) == 0;
}();

} // namespace
