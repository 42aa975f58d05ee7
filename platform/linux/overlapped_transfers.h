// Transfers of one handle that go on beside the program, on a thread of the handle's own: what Windows does for a file
// that is read or written in sequence, and what keeps a disk busy while the program computes.
//
// One transfer may be read ahead and two may be written behind, each in a block of the platform's own. The program's
// thread calls, the other one transfers, and all that they share is in here. What is read ahead is a wish: whatever
// fails on the way, or comes too late to be wanted, is forgotten, and the program's own read finds the same error.
// What is written behind is a debt: the first failure stays with the handle, and nothing is written behind it.
#pragma once

#include <windows.h>

#include <pthread.h>
#include <sys/types.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "page_exchange.h"

namespace vornix::platform {

struct OpenObject;

struct FreeTransferBlock {
    void operator()(uint8_t* block) const;
};

// Bytes of a file that were written before, [From, To): those to be sent to its disk. Empty where From is To.
struct WrittenStretch {
    uint64_t From = 0;
    uint64_t To = 0;
};

class OverlappedTransfers {
public:
    // No shorter transfer is worth another thread, and what a longer one is followed by is not known to be wanted.
    static constexpr size_t shortest = size_t{64} << 10;
    static constexpr size_t longest = size_t{32} << 20;

    // Null where there is no thread to be had, where too many handles have one, and where transfers are to stay
    // synchronous. `object` outlives what this gives.
    static std::unique_ptr<OverlappedTransfers> Start(const OpenObject& object);

    // Finishes what is to be written, and what is just being read; ends the thread.
    ~OverlappedTransfers();
    OverlappedTransfers(const OverlappedTransfers&) = delete;
    OverlappedTransfers& operator=(const OverlappedTransfers&) = delete;
    OverlappedTransfers(OverlappedTransfers&&) = delete;
    OverlappedTransfers& operator=(OverlappedTransfers&&) = delete;

    // Whether the thread is one of another process, of which this one is a copy: there is none here then, and nothing
    // of this can be used, nor ended.
    bool IsOfAnotherProcess() const;

    // Has this stretch read, unless another one is being read or kept.
    void ReadAhead(uint64_t position, size_t length);

    // Fills the memory with what was read ahead, and waits for it if it is under way. FALSE where it is not that what
    // was read, or did not come whole; nothing is kept any more then. Large blocks change hands by their pages.
    bool TakeAhead(uint64_t position, uint8_t* memory, size_t length);

    // Forgets what was read ahead. No read is under way any more.
    void DropAhead();

    // Copies the bytes and has them written, and the stretch sent to the disk when they are. Waits until there is
    // room. False where they are not taken: for want of memory, or since an earlier one failed.
    bool WriteBehind(uint64_t position, const uint8_t* memory, size_t length, WrittenStretch send);

    // Has the stretch sent to the disk, which is a wish as well. False where too much waits to be sent already.
    bool Send(WrittenStretch stretch);

    // Waits until nothing is being written; gives ERROR_SUCCESS or the first failure.
    DWORD Settle();

private:
    explicit OverlappedTransfers(const OpenObject& object);

    struct Block {
        std::unique_ptr<uint8_t, FreeTransferBlock> Memory;
        size_t Capacity = 0;
        bool Reserve(size_t length);
    };
    enum class AheadState {
        None,
        Asked,
        UnderWay,
        Done
    };
    struct Write {
        Block Bytes;
        uint64_t Position = 0;
        size_t Length = 0; // 0 where there is something to be sent alone
        WrittenStretch Stretch;
    };

    bool StartThread();
    void Serve();
    void ServeAhead(std::unique_lock<std::mutex>& lock);
    void ServeWrite(std::unique_lock<std::mutex>& lock);
    void DropAhead(std::unique_lock<std::mutex>& lock);
    bool AreWritesUnderWay() const;

    const OpenObject& object_;
    const pid_t process_;
    pthread_t thread_{};

    std::mutex mutex_;
    std::condition_variable changed_;
    bool isEnding_ = false;

    // The block belongs to the thread from Asked to Done, and to the program otherwise.
    Block ahead_;
    PageExchange exchange_;
    AheadState aheadState_ = AheadState::None;
    uint64_t aheadPosition_ = 0;
    size_t aheadLength_ = 0;
    size_t aheadDone_ = 0; // 0 where it failed

    // A ring: the first of these belong to the thread, the rest to the program.
    std::array<Write, 2> writes_;
    size_t firstWrite_ = 0;
    size_t writeCount_ = 0;
    DWORD failure_ = ERROR_SUCCESS;
};

// From now on no handle gets a thread: for the described machine, whose calls come one by one.
void KeepTransfersSynchronous();

} // namespace vornix::platform
