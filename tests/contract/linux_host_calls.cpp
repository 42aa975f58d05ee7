// The layer between the platform and the kernel that linux_host_calls.h tells of.
#include "linux_host_calls.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

HostCalls& TheHostCalls() {
    static HostCalls& calls = *new HostCalls;
    return calls;
}

OtherThreads& TheOtherThreads() {
    static OtherThreads threads;
    return threads;
}

namespace {

bool IsOtherThread() {
    return gettid() != getpid();
}

// For the time of a transfer of another thread.
class UnderWay {
public:
    UnderWay() {
        TheOtherThreads().UnderWay++;
        while (TheOtherThreads().AreHeld) {
            (void)usleep(1000);
        }
    }
    ~UnderWay() { TheOtherThreads().UnderWay--; }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;
};

// The function that this one of the same name stands in front of: the C library's, or that of a sanitizer, which then
// sees which memory is transferred.
template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Decides a transfer of another thread by the count of those that pass.
bool AdmitOther(std::atomic<int>& passing) {
    if (passing == 0) {
        errno = TheOtherThreads().TransferError;
        return false;
    }
    if (passing > 0) {
        passing--;
    }
    return true;
}

void RaiseTo(std::atomic<uint64_t>& highest, uint64_t end) {
    highest = std::max(highest.load(), end);
}

ssize_t ReadOfAnotherThread(int descriptor, void* buffer, size_t length, off_t offset) {
    const UnderWay scope;
    OtherThreads& threads = TheOtherThreads();
    if (!AdmitOther(threads.FailReadAfter)) {
        return -1;
    }
    const ssize_t count = Next<decltype(pread)>("pread")(descriptor, buffer, length, offset);
    if (count > 0) {
        const auto start = static_cast<uint64_t>(offset);
        threads.ReadFrom = std::min(threads.ReadFrom.load(), start);
        RaiseTo(threads.ReadTo, start + static_cast<uint64_t>(count));
    }
    return count;
}

ssize_t WriteOfAnotherThread(int descriptor, const void* buffer, size_t length, off_t offset) {
    const UnderWay scope;
    OtherThreads& threads = TheOtherThreads();
    if (!AdmitOther(threads.FailWriteAfter)) {
        threads.FailWriteAfter = -1;
        return -1;
    }
    const ssize_t count = Next<decltype(pwrite)>("pwrite")(descriptor, buffer, length, offset);
    if (count > 0) {
        RaiseTo(threads.WrittenTo, static_cast<uint64_t>(offset) + static_cast<uint64_t>(count));
    }
    return count;
}

// Decides a transfer: false if it fails, with errno set; else `length` is what it may move.
bool AdmitTransfer(size_t& length) {
    HostCalls& calls = TheHostCalls();
    if (calls.InterruptTransfers > 0) {
        calls.InterruptTransfers--;
        errno = EINTR;
        return false;
    }
    if (calls.FailTransferAfter == 0) {
        calls.FailTransferAfter = -1;
        errno = calls.TransferError;
        return false;
    }
    if (calls.FailTransferAfter > 0) {
        calls.FailTransferAfter--;
    }
    if (calls.LongestTransfer != 0) {
        length = std::min(length, calls.LongestTransfer);
    }
    return true;
}

// Whether a signal interrupts a wait, with errno set.
bool IsInterrupted(bool isAsked) {
    if (!isAsked || ++TheHostCalls().Waits % 2 == 0) {
        return false;
    }
    errno = EINTR;
    return true;
}

bool IsPipe(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode);
}

bool IsOfRegistry(int descriptor) {
    char name[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), name, sizeof name);
    return length > 0 && std::string(name, static_cast<size_t>(length)).find("/vornix/disks") != std::string::npos;
}

} // namespace

extern "C" {

// Asked by the address sanitizer, where the tests run under it: an allocation that is too large gives a null pointer,
// as it does without it.
const char* __asan_default_options();
const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

ssize_t pread(int descriptor, void* buffer, size_t length, off_t offset) {
    if (IsOtherThread()) {
        return ReadOfAnotherThread(descriptor, buffer, length, offset);
    }
    return AdmitTransfer(length) ? Next<decltype(pread)>("pread")(descriptor, buffer, length, offset) : -1;
}

ssize_t pwrite(int descriptor, const void* buffer, size_t length, off_t offset) {
    if (IsOtherThread()) {
        return WriteOfAnotherThread(descriptor, buffer, length, offset);
    }
    return AdmitTransfer(length) ? Next<decltype(pwrite)>("pwrite")(descriptor, buffer, length, offset) : -1;
}

int poll(struct pollfd* waited, nfds_t count, int timeout) {
    return IsInterrupted(TheHostCalls().InterruptsWaits) ? -1 : Next<decltype(poll)>("poll")(waited, count, timeout);
}

pid_t waitpid(pid_t child, int* status, int options) {
    return IsInterrupted(TheHostCalls().InterruptsWaits) ? -1
                                                         : Next<decltype(waitpid)>("waitpid")(child, status, options);
}

ssize_t read(int descriptor, void* buffer, size_t length) {
    if (IsInterrupted(TheHostCalls().InterruptsPipes && IsPipe(descriptor))) {
        return -1;
    }
    return !IsOfRegistry(descriptor) || AdmitTransfer(length) ? syscall(SYS_read, descriptor, buffer, length) : -1;
}

ssize_t write(int descriptor, const void* buffer, size_t length) {
    return !IsOfRegistry(descriptor) || AdmitTransfer(length) ? syscall(SYS_write, descriptor, buffer, length) : -1;
}

int flock(int descriptor, int operation) noexcept {
    if (TheHostCalls().LockError != 0) {
        errno = std::exchange(TheHostCalls().LockError, 0);
        return -1;
    }
    return static_cast<int>(syscall(SYS_flock, descriptor, operation));
}

int sync_file_range(int descriptor, off_t offset, off_t length, unsigned flags) {
    if (!IsOtherThread()) {
        TheHostCalls().Order.emplace_back("send"); // takes as long as the disk likes
        return 0;
    }
    const UnderWay scope;
    const auto status = static_cast<int>(syscall(SYS_sync_file_range, descriptor, offset, length, flags));
    RaiseTo(TheOtherThreads().SentTo, static_cast<uint64_t>(offset + length));
    return status;
}

int fcntl(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const auto argument = va_arg(arguments, uintptr_t);
    va_end(arguments);
    if ((command == F_OFD_SETLK || command == F_OFD_GETLK) && !TheHostCalls().HasLocks) {
        errno = ENOLCK;
        return -1;
    }
    if (command == F_OFD_SETLK && TheHostCalls().BeforeLock) {
        TheHostCalls().BeforeLock();
    }
    return static_cast<int>(syscall(SYS_fcntl, descriptor, command, argument));
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (const std::string& id = TheHostCalls().BtrfsId; request == BTRFS_IOC_FS_INFO && !id.empty()) {
        std::copy(id.begin(), id.end(), static_cast<btrfs_ioctl_fs_info_args*>(argument)->fsid);
        return 0;
    }
    return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
    if (syscall(SYS_statx, folder, path, flags, mask, status) != 0) {
        return -1;
    }
    if (TheHostCalls().ChangeStatx) {
        TheHostCalls().ChangeStatx(*status);
    }
    return 0;
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) {
    if (flags != 0 && !TheHostCalls().HasRenameWithoutReplacing) {
        errno = EINVAL;
        return -1;
    }
    TheHostCalls().Order.emplace_back("rename");
    return static_cast<int>(syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags));
}

int rename(const char* from, const char* to) noexcept {
    TheHostCalls().Order.emplace_back("rename");
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

int link(const char* from, const char* to) noexcept {
    if (!TheHostCalls().HasHardLinks) {
        errno = EPERM;
        return -1;
    }
    TheHostCalls().Order.emplace_back("rename");
    return static_cast<int>(syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

int fsync(int descriptor) {
    struct stat status {};
    const bool isKnown = fstat(descriptor, &status) == 0;
    const bool isFolder = isKnown && S_ISDIR(status.st_mode);
    HostCalls& calls = TheHostCalls();
    calls.Order.emplace_back(isFolder ? "sync folder" : isKnown && S_ISBLK(status.st_mode) ? "sync disk" : "sync file");
    if (!isFolder) {
        calls.LastSynced = descriptor;
        if (calls.SyncError != 0 && calls.FailSyncAfter-- == 0) {
            errno = calls.SyncError;
            calls.SyncError = 0;
            return -1;
        }
    } else if (calls.FolderSyncError != 0) {
        errno = calls.FolderSyncError;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, descriptor));
}

int syncfs(int descriptor) noexcept {
    HostCalls& calls = TheHostCalls();
    calls.Order.emplace_back("sync file system");
    if (calls.WholeSyncError != 0) {
        errno = calls.WholeSyncError;
        return -1;
    }
    // Asked for as often as the tests do, the whole of the machine's disks would take its time.
    return fcntl(descriptor, F_GETFD) < 0 ? -1 : 0;
}

int fstatfs(int descriptor, struct statfs* system) noexcept {
    if (syscall(SYS_fstatfs, descriptor, system) != 0) {
        return -1;
    }
    system->f_type = TheHostCalls().IsExt ? EXT4_SUPER_MAGIC : TMPFS_MAGIC; // and not what the tests happen to lie on
    return 0;
}

int fchmod(int descriptor, mode_t mode) noexcept {
    if (TheHostCalls().IsExt) {
        TheHostCalls().Order.emplace_back("set permissions");
    }
    return static_cast<int>(syscall(SYS_fchmod, descriptor, mode));
}

int fallocate(int descriptor, int mode, off_t offset, off_t length) {
    if (!TheHostCalls().HasAllocation) {
        errno = EOPNOTSUPP;
        return -1;
    }
    TheHostCalls().Order.emplace_back("allocate");
    return static_cast<int>(syscall(SYS_fallocate, descriptor, mode, offset, length));
}

int posix_fadvise(int descriptor, off_t offset, off_t length, int advice) noexcept {
    if (advice == POSIX_FADV_DONTNEED) {
        TheHostCalls().Order.emplace_back(offset == 0 && length == 0 ? "drop" : "drop a part");
    }
    return syscall(SYS_fadvise64, descriptor, offset, length, advice) == 0 ? 0 : errno;
}

int close(int descriptor) {
    const auto status = static_cast<int>(syscall(SYS_close, descriptor));
    HostCalls& calls = TheHostCalls();
    calls.HasClosedUnderWay |= TheOtherThreads().UnderWay != 0;
    if (!IsOtherThread() && calls.CloseError != 0 && descriptor == calls.LastSynced) {
        errno = calls.CloseError;
        calls.CloseError = 0;
        return -1;
    }
    if (!IsOtherThread() && calls.OtherCloseError != 0) {
        errno = calls.OtherCloseError;
        calls.OtherCloseError = 0;
        return -1;
    }
    return status;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept {
    if (!TheOtherThreads().CanBeMade) {
        return EAGAIN;
    }
    return Next<decltype(pthread_create)>("pthread_create")(thread, attributes, body, argument);
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    // Of that alignment nobody else asks for any.
    if (alignment == (size_t{64} << 10) && !TheOtherThreads().HaveMemory) {
        return ENOMEM;
    }
    return Next<decltype(posix_memalign)>("posix_memalign")(block, alignment, size);
}

} // extern "C"

std::string MediumReport(const std::string& name, unsigned error) {
    return "FATAL: " + name + ": not everything that was written reached the medium - do not trust it " +
           "\\(GetLastError=" + std::to_string(error) + "\\)\n$";
}

std::string ReadToTheEnd(int descriptor) {
    std::string text;
    char block[256];
    for (ssize_t count = 0; (count = read(descriptor, block, sizeof block)) > 0;) {
        text.append(block, static_cast<size_t>(count));
    }
    close(descriptor);
    return text;
}

int InChild(const std::function<int()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    return WEXITSTATUS(status);
}
