// A thin layer between the platform and the kernel, for the tests of what a host does only on a bad day: it fails or
// shortens a system call that the platform makes, and records the order of those that bring a file to its disk.
//
// The functions of the same names in linux_host_calls.cpp stand before the C library's when the test program is linked.
// With nothing asked of them they go on to the kernel.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct HostCalls {
    // Transfers are those of files and disks at a position, and of the registry of disk numbers.
    int FailTransferAfter = -1; // so many transfers pass, the next one fails with TransferError; -1: none fails
    int TransferError = 0;
    size_t LongestTransfer = 0; // a transfer moves no more than this; 0: as much as it likes
    int InterruptTransfers = 0; // so many transfers are interrupted by a signal before they move anything

    bool InterruptsWaits = false; // every other poll and wait for another process is interrupted by a signal
    bool InterruptsPipes = false; // every other read of a pipe is
    int Waits = 0;                // so many of these there were

    int LockError = 0; // the next flock fails with this, once

    bool HasLocks = true; // the file system has advisory locks
    bool HasRenameWithoutReplacing = true;
    bool HasHardLinks = true;
    bool HasAllocation = true; // the file system can give room to a stretch that was not written
    bool IsExt = false;        // whether the file system says that it is ext2, ext3 or ext4
    int FailSyncAfter = 0;     // so many fsyncs of ordinary files and disks pass before one can fail
    int SyncError = 0;         // fsync of an ordinary file or of a disk fails with this, once
    int FolderSyncError = 0;   // fsync of a folder fails with this
    int WholeSyncError = 0;    // syncfs fails with this
    int CloseError = 0;        // the close of an ordinary file that was synced says this, once
    int OtherCloseError = 0;   // the next close says this, once

    std::string BtrfsId; // 16 bytes: every folder lies on the btrfs file system of this name

    bool HasClosedUnderWay = false; // the program closed something while a transfer of another thread was under way

    std::function<void(struct statx&)> ChangeStatx; // what another kernel or file system would answer

    std::function<void()> BeforeLock; // what somebody else does between an open and its lock

    // "send", "allocate", "sync file", "sync disk", "drop", "drop a part", "rename", "sync folder", "sync file system",
    // and on ext "set permissions"
    std::vector<std::string> Order;
    int LastSynced = -1; // the descriptor
};

// What the layer does from now on, to the calls of the program's own thread.
HostCalls& TheHostCalls();

// What other threads than the program's own did, which the layer lets through: the lowest offset of all their reads,
// the highest end of those, of their writes and of what they sent to a disk, and how many of all three are under way.
struct OtherThreads {
    std::atomic<uint64_t> ReadFrom = UINT64_MAX;
    std::atomic<uint64_t> ReadTo = 0;
    std::atomic<uint64_t> WrittenTo = 0;
    std::atomic<uint64_t> SentTo = 0;
    std::atomic<int> UnderWay = 0;
    std::atomic<bool> AreHeld = false; // each that begins stays under way until this is false

    // So many of their reads pass, and all behind them fail; so many of their writes, and the next one fails; with this
    // error. -1: none fails.
    std::atomic<int> FailReadAfter = -1;
    std::atomic<int> FailWriteAfter = -1;
    std::atomic<int> TransferError = 0;

    // What they are made of: threads, and blocks of memory as large as a transfer.
    std::atomic<bool> CanBeMade = true;
    std::atomic<bool> HaveMemory = true;
};

OtherThreads& TheOtherThreads();

// Puts the layer back to doing nothing at the end of a test.
class ScopedHostCalls {
public:
    ScopedHostCalls() {
        TheHostCalls() = HostCalls();
        OtherThreads& threads = TheOtherThreads();
        threads.ReadFrom = UINT64_MAX;
        threads.ReadTo = 0;
        threads.WrittenTo = 0;
        threads.SentTo = 0;
    }
    ~ScopedHostCalls() {
        TheHostCalls() = HostCalls();
        OtherThreads& threads = TheOtherThreads();
        threads.AreHeld = false;
        threads.FailReadAfter = -1;
        threads.FailWriteAfter = -1;
        threads.CanBeMade = true;
        threads.HaveMemory = true;
    }
    ScopedHostCalls(const ScopedHostCalls&) = delete;
    ScopedHostCalls& operator=(const ScopedHostCalls&) = delete;
};

// What a process says that ends at the close of what did not reach its medium, as a regular expression.
std::string MediumReport(const std::string& name, unsigned error);

// All that comes out of a pipe until its other ends are closed; closes this one.
std::string ReadToTheEnd(int descriptor);

// Runs `body` in a process of its own and gives what it returned, 0 to 255.
int InChild(const std::function<int()>& body);
