// The thread that reads ahead. It shares no memory with the program but the requests: what it reads goes into a block
// of its own that nobody looks at, and stays behind in the page cache.
#include "read_ahead.h"

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <new>
#include <string>

namespace vornix::platform {

namespace {

// Pieces of 1 MiB are no quicker and take more memory. The smaller they are, the sooner a closed file is let go.
constexpr size_t pieceSize = size_t{256} << 10;

struct Request {
    int Descriptor = -1;
    uint64_t Next = 0;
    uint64_t End = 0;
};

struct State {
    std::mutex Mutex;
    std::condition_variable Changed;
    // In the order in which they are served. A reader of more files than these at once reads the rest without help.
    std::array<Request, 8> Requests;
    size_t Count = 0;
    int BeingRead = -1;
    bool IsStarted = false;
    bool CannotStart = false;
};

// Never destroyed: the thread uses it until the process ends. Nor allocated: reading ahead is nothing that may fail.
State& TheState() {
    alignas(State) static std::array<unsigned char, sizeof(State)> memory;
    static State& state = *new (memory.data()) State;
    return state;
}

Request* Find(State& state, int descriptor) {
    Request* const end = state.Requests.data() + state.Count;
    Request* const found = std::find_if(state.Requests.data(), end,
                                        [&](const Request& request) { return request.Descriptor == descriptor; });
    return found == end ? nullptr : found;
}

void Remove(State& state, Request* request) {
    std::move(request + 1, state.Requests.data() + state.Count, request);
    state.Count--;
}

// Whether the page that holds this byte is in memory. The kernel says so of every file that belongs to somebody else,
// who shall not be watched; such a file is read without help.
bool IsInMemory(int descriptor, uint64_t offset) {
    static const auto pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const page =
        mmap(nullptr, pageSize, PROT_READ, MAP_SHARED, descriptor, static_cast<off_t>(offset / pageSize * pageSize));
    if (page == MAP_FAILED) {
        return false;
    }
    unsigned char answer = 0;
    const bool isKnown = mincore(page, pageSize, &answer) == 0;
    (void)munmap(page, pageSize);
    return isKnown && (answer & 1) != 0;
}

// Brings one piece into memory. False where the file ends or cannot be read.
bool Bring(int descriptor, uint64_t offset, size_t length) {
    static std::array<uint8_t, pieceSize> unseen;
    return pread(descriptor, unseen.data(), length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

void* Serve(void* /*unused*/) {
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.Mutex);
    for (;;) {
        state.Changed.wait(lock, [&] { return state.Count != 0; });
        const Request request = state.Requests[0];
        // To the next boundary, so that pieces are whole pages wherever the file's data begins.
        const auto length =
            static_cast<size_t>(std::min<uint64_t>(pieceSize - request.Next % pieceSize, request.End - request.Next));
        state.BeingRead = request.Descriptor;
        lock.unlock();
        // A file that was read before is often in memory as a whole, and copying it once more would be for nothing.
        // Looking at each of its pages costs as much as copying them; the last one of those asked for tells enough.
        const bool goesOn =
            !IsInMemory(request.Descriptor, request.End - 1) && Bring(request.Descriptor, request.Next, length);
        lock.lock();
        state.BeingRead = -1;
        state.Changed.notify_all();
        Request* const present = Find(state, request.Descriptor);
        if (present == nullptr) {
            continue;
        }
        present->Next = std::max(present->Next, request.Next + length);
        if (!goesOn || present->Next >= present->End) {
            Remove(state, present);
        }
    }
    return nullptr;
}

// Starts the thread at the first request. Signals stay with the program's own thread.
bool IsRunning(State& state) {
    if (state.IsStarted || state.CannotStart) {
        return state.IsStarted;
    }
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        state.CannotStart = true;
        return false;
    }
    constexpr size_t stackSize = size_t{256} << 10;
    (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    (void)pthread_attr_setstacksize(&attributes, stackSize);
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    state.IsStarted = pthread_create(&thread, &attributes, Serve, nullptr) == 0;
    state.CannotStart = !state.IsStarted;
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    (void)pthread_attr_destroy(&attributes);
    return state.IsStarted;
}

} // namespace

uint64_t KernelReadAhead(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return 0;
    }
    const std::string setting = "/sys/class/bdi/" + std::to_string(major(status.st_dev)) + ":" +
                                std::to_string(minor(status.st_dev)) + "/read_ahead_kb";
    uint64_t kibibytes = 0;
    std::ifstream(setting) >> kibibytes;
    return kibibytes << 10;
}

void ReadAhead(int descriptor, uint64_t reader, uint64_t from, uint64_t to) {
    State& state = TheState();
    const std::lock_guard<std::mutex> lock(state.Mutex);
    if (Request* const present = Find(state, descriptor); present != nullptr) {
        present->Next = std::max(present->Next, reader);
        present->End = std::max(present->End, to);
        if (present->Next >= present->End) {
            Remove(state, present);
        }
        return;
    }
    if (from >= to || state.Count == state.Requests.size() || !IsRunning(state)) {
        return;
    }
    state.Requests[state.Count++] = {descriptor, from, to};
    state.Changed.notify_all();
}

void EndReadAhead(int descriptor) {
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.Mutex);
    if (Request* const present = Find(state, descriptor); present != nullptr) {
        Remove(state, present);
    }
    state.Changed.wait(lock, [&] { return state.BeingRead != descriptor; });
}

} // namespace vornix::platform
