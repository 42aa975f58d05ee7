// The thread in which a piece of the program runs, and the calls of exit that end in it.
#include "unit/process_end.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>

namespace {

// Where the thread that is watched says how it ended.
thread_local std::shared_ptr<std::promise<std::optional<int>>> ending;

} // namespace

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);

void __wrap_exit(int status) {
    if (ending == nullptr) {
        __real_exit(status);
    }
    ending->set_value(status);
    std::promise<void>().get_future().wait();
    __real_exit(status); // never reached
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace vornix {

ProcessEnd EndOf(const std::function<void()>& piece) {
    const auto promise = std::make_shared<std::promise<std::optional<int>>>();
    testing::internal::CaptureStderr();
    std::thread([promise, piece] {
        ending = promise;
        piece();
        promise->set_value(std::nullopt);
    }).detach();
    ProcessEnd end;
    end.Status = promise->get_future().get();
    end.Errors = testing::internal::GetCapturedStderr();
    return end;
}

} // namespace vornix
