// The threads that read ahead and write behind. They share nothing with the program but the requests: what is read goes
// into a block that nobody looks at, and stays behind in the page cache.
#include "background_transfers.h"

#include <fcntl.h>
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

struct Request {
    int Descriptor = -1;
    uint64_t Next = 0;
    uint64_t End = 0;
};

// One thread and what it is asked for. `transfer` does the next piece of a request and gives its length, or 0 where the
// request cannot go on.
class Background {
public:
    using Transfer = uint64_t (*)(const Request& request);

    explicit Background(Transfer transfer) : transfer_(transfer) {}

    void Ask(int descriptor, uint64_t reached, uint64_t from, uint64_t to) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (Request* const present = Find(descriptor); present != nullptr) {
            present->Next = std::max(present->Next, reached);
            present->End = std::max(present->End, to);
            if (present->Next >= present->End) {
                Remove(present);
            }
            return;
        }
        if (from >= to || count_ == requests_.size() || !IsRunning()) {
            return;
        }
        requests_[count_++] = {descriptor, from, to};
        changed_.notify_all();
    }

    void End(int descriptor) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (Request* const present = Find(descriptor); present != nullptr) {
            Remove(present);
        }
        changed_.wait(lock, [&] { return inUse_ != descriptor; });
    }

private:
    Request* Find(int descriptor) {
        Request* const end = requests_.data() + count_;
        Request* const found = std::find_if(requests_.data(), end,
                                            [&](const Request& request) { return request.Descriptor == descriptor; });
        return found == end ? nullptr : found;
    }

    void Remove(Request* request) {
        std::move(request + 1, requests_.data() + count_, request);
        count_--;
    }

    void Serve() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] { return count_ != 0; });
            const Request request = requests_[0];
            inUse_ = request.Descriptor;
            lock.unlock();
            const uint64_t done = transfer_(request);
            lock.lock();
            inUse_ = -1;
            changed_.notify_all();
            Request* const present = Find(request.Descriptor);
            if (present == nullptr) {
                continue;
            }
            present->Next = std::max(present->Next, request.Next + done);
            if (done == 0 || present->Next >= present->End) {
                Remove(present);
            }
        }
    }

    // Starts the thread at the first request. Signals stay with the program's own thread.
    bool IsRunning() {
        if (isStarted_ || cannotStart_) {
            return isStarted_;
        }
        cannotStart_ = true;
        pthread_attr_t attributes;
        if (pthread_attr_init(&attributes) != 0) {
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
        const auto body = [](void* background) -> void* {
            static_cast<Background*>(background)->Serve();
            return nullptr;
        };
        isStarted_ = pthread_create(&thread, &attributes, body, this) == 0;
        cannotStart_ = !isStarted_;
        (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
        (void)pthread_attr_destroy(&attributes);
        return isStarted_;
    }

    Transfer transfer_;
    std::mutex mutex_;
    std::condition_variable changed_;
    // In the order in which they are served. Who uses more files than these at once uses the rest without help.
    std::array<Request, 8> requests_;
    size_t count_ = 0;
    int inUse_ = -1;
    bool isStarted_ = false;
    bool cannotStart_ = false;
};

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

uint64_t Bring(const Request& request) {
    // Pieces of 1 MiB are no quicker and take more memory. The smaller they are, the sooner a closed file is let go.
    constexpr size_t pieceSize = size_t{256} << 10;
    static std::array<uint8_t, pieceSize> unseen;
    // A file that was read before is often in memory as a whole, and copying it once more would be for nothing. Looking
    // at each of its pages costs as much as copying them; the last one of those asked for tells enough.
    if (IsInMemory(request.Descriptor, request.End - 1)) {
        return 0;
    }
    // To the next boundary, so that pieces are whole pages wherever the file's data begins.
    const auto length =
        static_cast<size_t>(std::min<uint64_t>(pieceSize - request.Next % pieceSize, request.End - request.Next));
    const ssize_t count = pread(request.Descriptor, unseen.data(), length, static_cast<off_t>(request.Next));
    return count == static_cast<ssize_t>(length) ? length : 0;
}

uint64_t Send(const Request& request) {
    // No more at once than what a close can wait for.
    constexpr uint64_t pieceSize = uint64_t{32} << 20;
    const uint64_t length = std::min(request.End - request.Next, pieceSize);
    (void)sync_file_range(request.Descriptor, static_cast<off_t>(request.Next), static_cast<off_t>(length),
                          SYNC_FILE_RANGE_WRITE);
    return length;
}

// Never destroyed: the threads use them until the process ends. Nor allocated: what is only a wish shall not fail.
Background& Reading() {
    alignas(Background) static std::array<unsigned char, sizeof(Background)> memory;
    static Background& background = *new (memory.data()) Background(Bring);
    return background;
}

Background& Writing() {
    alignas(Background) static std::array<unsigned char, sizeof(Background)> memory;
    static Background& background = *new (memory.data()) Background(Send);
    return background;
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
    Reading().Ask(descriptor, reader, from, to);
}

void WriteBehind(int descriptor, uint64_t from, uint64_t to) {
    Writing().Ask(descriptor, 0, from, to);
}

void EndBackgroundTransfers(int descriptor) {
    Reading().End(descriptor);
    Writing().End(descriptor);
}

} // namespace vornix::platform
