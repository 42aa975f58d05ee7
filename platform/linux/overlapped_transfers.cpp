// The thread of a handle, and what it shares with the program's own.
#include "overlapped_transfers.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "huge_pages.h"
#include "left_out.h"
#include "open_objects.h"
#include "raw_transfers.h"

namespace vornix::platform {

namespace {

// Who has more handles than these at work at once has the rest transfer without help: the blocks of a long chain of
// images would take more memory than its tables.
constexpr int mostThreads = 8;

std::atomic<int> threads = 0;
std::atomic<bool> staySynchronous = IsLeftOut("overlap");

} // namespace

void FreeTransferBlock::operator()(uint8_t* block) const {
    std::free(block); // NOLINT(cppcoreguidelines-no-malloc): this is the owner, of what posix_memalign gave
}

void KeepTransfersSynchronous() {
    staySynchronous = true;
}

bool OverlappedTransfers::Block::Reserve(size_t length) {
    if (Capacity < length) {
        // Satisfies every disk: no sector and no page is larger, and what direct transfers demand is less.
        constexpr size_t alignment = size_t{64} << 10;
        Memory.reset();
        int code = 0;
        Memory.reset(static_cast<uint8_t*>(AllocateBlock(length, alignment, code)));
        Capacity = Memory != nullptr ? length : 0;
    }
    return Memory != nullptr;
}

std::unique_ptr<OverlappedTransfers> OverlappedTransfers::Start(const OpenObject& object) {
    if (staySynchronous) {
        return nullptr;
    }
    if (threads++ < mostThreads) {
        std::unique_ptr<OverlappedTransfers> transfers(new (std::nothrow) OverlappedTransfers(object));
        if (transfers != nullptr && transfers->StartThread()) {
            FinishWritesAtExit();
            return transfers;
        }
    }
    threads--;
    return nullptr;
}

OverlappedTransfers::OverlappedTransfers(const OpenObject& object) : object_(object), process_(getpid()) {}

OverlappedTransfers::~OverlappedTransfers() {
    if (thread_ == pthread_t{}) {
        return;
    }
    {
        std::unique_lock<std::mutex> lock(mutex_);
        isEnding_ = true;
        changed_.notify_all();
    }
    (void)pthread_join(thread_, nullptr);
    threads--;
}

bool OverlappedTransfers::IsOfAnotherProcess() const {
    return process_ != getpid();
}

// Signals stay with the program's own thread and with the one that waits for them.
bool OverlappedTransfers::StartThread() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    constexpr size_t stackSize = size_t{256} << 10;
    (void)pthread_attr_setstacksize(&attributes, stackSize);
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto body = [](void* transfers) -> void* {
        static_cast<OverlappedTransfers*>(transfers)->Serve();
        return nullptr;
    };
    pthread_t thread{};
    const bool isStarted = pthread_create(&thread, &attributes, body, this) == 0;
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    (void)pthread_attr_destroy(&attributes);
    if (isStarted) {
        thread_ = thread;
    }
    return isStarted;
}

// ---------------------------------------------------------------------------------------------------------------
// The handle's thread

void OverlappedTransfers::Serve() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return isEnding_ || writeCount_ != 0 || aheadState_ == AheadState::Asked; });
        if (writeCount_ != 0) {
            ServeWrite(lock);
        } else if (isEnding_) {
            return;
        } else {
            ServeAhead(lock);
        }
    }
}

void OverlappedTransfers::ServeAhead(std::unique_lock<std::mutex>& lock) {
    aheadState_ = AheadState::UnderWay;
    lock.unlock();
    size_t done = 0;
    const int code = TransferStretch(object_, false, ahead_.Memory.get(), aheadLength_, aheadPosition_, done);
    lock.lock();
    aheadDone_ = code == 0 ? done : 0;
    aheadState_ = AheadState::Done;
    changed_.notify_all();
}

void OverlappedTransfers::ServeWrite(std::unique_lock<std::mutex>& lock) {
    const Write& write = writes_[firstWrite_];
    const bool isToBeSent = write.Stretch.From < write.Stretch.To && !isEnding_;
    lock.unlock();
    size_t done = 0;
    const int code = TransferStretch(object_, true, write.Bytes.Memory.get(), write.Length, write.Position, done);
    DWORD error = ErrorOfTransfer(object_, code, done, write.Length);
    if (error == ERROR_SUCCESS && done < write.Length) {
        error = ERROR_GEN_FAILURE; // nobody is there to be told how far it came
    }
    if (error == ERROR_SUCCESS && isToBeSent) {
        // A wish: who wants to know that the bytes are on the disk syncs the file, which also finds what failed here.
        (void)sync_file_range(object_.Descriptor, static_cast<off_t>(write.Stretch.From),
                              static_cast<off_t>(write.Stretch.To - write.Stretch.From), SYNC_FILE_RANGE_WRITE);
    }
    lock.lock();
    firstWrite_ = (firstWrite_ + 1) % writes_.size();
    writeCount_--;
    if (error != ERROR_SUCCESS) {
        // What waits behind it would leave a hole where it failed.
        failure_ = error;
        writeCount_ = 0;
    }
    changed_.notify_all();
}

// ---------------------------------------------------------------------------------------------------------------
// The program's thread

void OverlappedTransfers::ReadAhead(uint64_t position, size_t length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (aheadState_ != AheadState::None || !ahead_.Reserve(length)) {
        return;
    }
    aheadPosition_ = position;
    aheadLength_ = length;
    aheadState_ = AheadState::Asked;
    changed_.notify_all();
}

bool OverlappedTransfers::TakeAhead(uint64_t position, uint8_t* memory, size_t length) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (aheadState_ == AheadState::None) {
        return false;
    }
    if (position != aheadPosition_ || length > aheadLength_) {
        DropAhead(lock);
        return false;
    }
    changed_.wait(lock, [&] { return aheadState_ == AheadState::Done; });
    aheadState_ = AheadState::None;
    if (aheadDone_ < length) {
        return false;
    }
    lock.unlock();
    exchange_.Take(memory, ahead_.Memory.get(), length);
    return true;
}

void OverlappedTransfers::DropAhead() {
    std::unique_lock<std::mutex> lock(mutex_);
    DropAhead(lock);
}

void OverlappedTransfers::DropAhead(std::unique_lock<std::mutex>& lock) {
    changed_.wait(lock, [&] { return aheadState_ != AheadState::UnderWay; });
    aheadState_ = AheadState::None;
}

bool OverlappedTransfers::WriteBehind(uint64_t position, const uint8_t* memory, size_t length, WrittenStretch send) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return writeCount_ < writes_.size() || failure_ != ERROR_SUCCESS; });
    if (failure_ != ERROR_SUCCESS) {
        return false;
    }
    // Stays the first of the program's own, however many the thread finishes meanwhile.
    Write& write = writes_[(firstWrite_ + writeCount_) % writes_.size()];
    lock.unlock();
    if (!write.Bytes.Reserve(length)) {
        return false;
    }
    std::memcpy(write.Bytes.Memory.get(), memory, length);
    write.Position = position;
    write.Length = length;
    write.Stretch = send;
    lock.lock();
    if (failure_ != ERROR_SUCCESS) {
        return false;
    }
    writeCount_++;
    changed_.notify_all();
    return true;
}

bool OverlappedTransfers::Send(WrittenStretch stretch) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (writeCount_ == writes_.size() || failure_ != ERROR_SUCCESS) {
        return false;
    }
    Write& write = writes_[(firstWrite_ + writeCount_) % writes_.size()];
    write.Length = 0;
    write.Stretch = stretch;
    writeCount_++;
    changed_.notify_all();
    return true;
}

bool OverlappedTransfers::AreWritesUnderWay() const {
    for (size_t i = 0; i < writeCount_; i++) {
        if (writes_[(firstWrite_ + i) % writes_.size()].Length != 0) {
            return true;
        }
    }
    return false;
}

DWORD OverlappedTransfers::Settle() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !AreWritesUnderWay(); });
    return failure_;
}

} // namespace vornix::platform
