// Files and devices: the answers to CreateFileW, ReadFile, WriteFile, SetFilePointerEx, GetFileSizeEx, CloseHandle,
// GetFileAttributesA and MoveFileExW. Device control and the disks themselves are in linux_disks.cpp.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "durable_writes.h"
#include "host_paths.h"
#include "last_error.h"
#include "linux_calls.h"
#include "linux_disks.h"
#include "open_objects.h"
#include "overlapped_transfers.h"
#include "owned_descriptor.h"
#include "raw_transfers.h"
#include "share_modes.h"
#include "unsupported.h"
#include "work_account.h"

using namespace vornix::platform;

namespace {

// Written bytes are sent to the disk in stretches of at least this size, so that a rename that waits for them finds
// little left to wait for.
constexpr uint64_t sendStretch = uint64_t{8} << 20;
// An image holds everything that the permissions of the disk protect: who may read it besides its owner is for the
// owner to say.
constexpr mode_t newFileMode = S_IRUSR | S_IWUSR;
// Memory that direct I/O cannot use is copied through a block of this size.
constexpr size_t bounceSize = size_t{1} << 20;

int OpenModeOf(DWORD access) {
    if ((access & GENERIC_WRITE) == 0) {
        return O_RDONLY;
    }
    return (access & GENERIC_READ) != 0 ? O_RDWR : O_WRONLY;
}

// ---------------------------------------------------------------------------------------------------------------
// CreateFileW

void RefuseUnsupportedOpen(DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                           HANDLE templateFile) {
    if (access == 0 || (access & ~(GENERIC_READ | GENERIC_WRITE)) != 0) {
        EndUnsupported("CreateFileW", "access", access);
    }
    if ((share & ~(FILE_SHARE_READ | FILE_SHARE_WRITE)) != 0) {
        EndUnsupported("CreateFileW", "share mode", share);
    }
    if (security != nullptr) {
        EndUnsupported("CreateFileW", "a security descriptor");
    }
    if (disposition != CREATE_NEW && disposition != CREATE_ALWAYS && disposition != OPEN_EXISTING) {
        EndUnsupported("CreateFileW", "disposition", disposition);
    }
    if (disposition != OPEN_EXISTING && (access & GENERIC_WRITE) == 0) {
        EndUnsupported("CreateFileW", "creation without write access, disposition", disposition);
    }
    if ((flags & ~(FILE_ATTRIBUTE_NORMAL | FILE_FLAG_NO_BUFFERING | FILE_FLAG_SEQUENTIAL_SCAN)) != 0) {
        EndUnsupported("CreateFileW", "flags", flags);
    }
    if (templateFile != nullptr) {
        EndUnsupported("CreateFileW", "a template");
    }
}

// Opens, or creates, the ordinary file at `path` without changing its content. Gives the descriptor, or -1 with the
// error. `created` tells whether the file is new.
int OpenOrdinaryFile(const std::string& path, int mode, DWORD disposition, bool& created, DWORD& error) {
    // Without O_NONBLOCK a pipe at this path would hold the open until somebody came to its other end.
    const int openFlags = mode | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    created = false;
    if (disposition == OPEN_EXISTING) {
        const int descriptor = open(path.c_str(), openFlags);
        if (descriptor < 0) {
            error = ErrorOfPath(errno, path);
        }
        return descriptor;
    }
    // The name may come or go between the two opens of a round.
    for (int round = 0; round < 8; round++) {
        int descriptor = open(path.c_str(), openFlags | O_CREAT | O_EXCL, newFileMode);
        if (descriptor >= 0) {
            created = true;
            return descriptor;
        }
        if (errno != EEXIST) {
            error = ErrorOfPath(errno, path);
            return -1;
        }
        if (disposition == CREATE_NEW) {
            error = ERROR_FILE_EXISTS;
            return -1;
        }
        descriptor = open(path.c_str(), openFlags);
        if (descriptor >= 0) {
            return descriptor;
        }
        error = ErrorOfPath(errno, path);
        if (errno != ENOENT) {
            return -1;
        }
    }
    return -1;
}

// Turns the open ordinary file into a direct one where its file system takes that, and sets the rules for transfers.
void MakeUnbuffered(OpenObject& file) {
    constexpr uint32_t usualSector = 512;
    file.SectorSize = usualSector;
    const int statusFlags = fcntl(file.Descriptor, F_GETFL);
    if (statusFlags < 0 || fcntl(file.Descriptor, F_SETFL, statusFlags | O_DIRECT) != 0) {
        // Buffered transfers give the same bytes; unbuffered is a wish about caching, not about content.
        return;
    }
    file.MemoryAlignment = usualSector;
#ifdef STATX_DIOALIGN
    struct statx status {};
    if (statx(file.Descriptor, "", AT_EMPTY_PATH, STATX_DIOALIGN, &status) == 0 &&
        (status.stx_mask & STATX_DIOALIGN) != 0) {
        if (status.stx_dio_offset_align == 0) {
            (void)fcntl(file.Descriptor, F_SETFL, statusFlags);
            file.MemoryAlignment = 1;
            return;
        }
        file.SectorSize = std::max(usualSector, status.stx_dio_offset_align);
        file.MemoryAlignment = status.stx_dio_mem_align;
    }
#endif
}

// Whether the file is the one that the path leads to.
bool IsNamed(const struct stat& file, const std::string& path) {
    struct stat named {};
    return stat(path.c_str(), &named) == 0 && named.st_dev == file.st_dev && named.st_ino == file.st_ino;
}

// Opens, or creates, the ordinary file and takes its place beside other handles, without changing its content. Gives
// ERROR_SUCCESS or the error; `created` tells whether the file is new.
DWORD OpenInItsPlace(OpenObject& file, const std::string& path, DWORD share, DWORD disposition, bool& created) {
    for (int round = 0; round < 8; round++) {
        DWORD error = ERROR_FILE_NOT_FOUND;
        file.Descriptor = OpenOrdinaryFile(path, OpenModeOf(file.Access), disposition, created, error);
        if (file.Descriptor < 0) {
            return error;
        }
        struct stat status {};
        if (fstat(file.Descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
            return ERROR_ACCESS_DENIED;
        }
        if (!TakeSharePlace(file.Descriptor, file.Access, share)) {
            return ERROR_SHARING_VIOLATION;
        }
        if (disposition == OPEN_EXISTING || IsNamed(status, path)) {
            return ERROR_SUCCESS;
        }
        // Opening and taking the place are two steps here. Between them another process opened the file, made it whole
        // and gave it another name: it is that process's now, and what is wanted is a file of this name.
        (void)close(file.Descriptor);
        file.Descriptor = -1;
    }
    return ERROR_SHARING_VIOLATION;
}

HANDLE OpenHostFile(const std::string& path, DWORD access, DWORD share, DWORD disposition, DWORD flags) {
    // Looked at first, because opening some devices does something.
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        (void)FailWith(disposition == CREATE_NEW ? ERROR_FILE_EXISTS : ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    if (path.ends_with('/')) {
        // No file has such a name, whether or not there is one in front of the separator.
        (void)FailWith(ERROR_INVALID_NAME);
        return INVALID_HANDLE_VALUE;
    }

    auto file = std::make_unique<OpenObject>();
    file->Access = access;
    file->Name = path;
    bool created = false;
    WorkAccount& account = AccountOfRun();
    std::unique_lock<std::timed_mutex> entering(account.Mutex, std::defer_lock);
    if (disposition != OPEN_EXISTING) {
        entering.lock();
    }
    // Before anything is cut off: a refused open changes nothing.
    if (const DWORD error = OpenInItsPlace(*file, path, share, disposition, created); error != ERROR_SUCCESS) {
        (void)FailWith(error);
        return INVALID_HANDLE_VALUE;
    }
    account.HasOtherWork = true;
    if (disposition != OPEN_EXISTING) {
        account.File = path;
        // One that an earlier run left, with the permissions of its time. A file system without permissions says no.
        (void)fchmod(file->Descriptor, newFileMode);
    }
    // A new file as well: until it was claimed another process may have written into it.
    if (disposition == CREATE_ALWAYS && ftruncate(file->Descriptor, 0) != 0) {
        (void)FailWith(ErrorFromErrno(errno, Subject::File));
        return INVALID_HANDLE_VALUE;
    }
    file->IsWritten = disposition != OPEN_EXISTING;
    file->IsNew = created;
    if (created) {
        file->Folder = OwnedDescriptor(open(FolderOfHostPath(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if ((flags & FILE_FLAG_NO_BUFFERING) != 0) {
        MakeUnbuffered(*file);
    }
    // A successful open sets the last error: this disposition tells by it whether the file was there before.
    SetLastError(disposition == CREATE_ALWAYS && !created ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return RegisterObject(std::move(file));
}

// The number in "PhysicalDrive<N>", spelt as Windows spells it: decimal, with no zeros in front.
std::optional<uint64_t> DiskNumberOf(std::string_view device) {
    constexpr std::string_view prefix = "PhysicalDrive";
    if (device.size() <= prefix.size() || !EqualsIgnoringCase(device.substr(0, prefix.size()), prefix)) {
        return std::nullopt;
    }
    const std::string_view digits = device.substr(prefix.size());
    if (digits.size() > 10 || (digits.size() > 1 && digits[0] == '0') ||
        digits.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    uint64_t number = 0;
    for (const char digit : digits) {
        number = number * 10 + static_cast<uint64_t>(digit - '0');
    }
    return number;
}

HANDLE OpenDevice(std::string_view device, DWORD access, DWORD share, DWORD disposition, DWORD flags) {
    std::unique_ptr<OpenObject> object;
    if (disposition != OPEN_EXISTING) {
        // A device is there or not; nobody makes one, and none is an image. Looked at in a way that disturbs nobody.
        access = GENERIC_READ;
        share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    }
    if (const std::optional<uint64_t> number = DiskNumberOf(device)) {
        object = OpenDisk(*number, access, share, flags);
    } else if (EqualsIgnoringCase(device, "C:")) {
        object = OpenSystemVolume(access);
    } else {
        // No other device exists here, the change tracker's among them.
        (void)FailWith(ERROR_FILE_NOT_FOUND);
    }
    if (object == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    if (disposition != OPEN_EXISTING) {
        (void)FailWith(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if ((access & GENERIC_WRITE) != 0) {
        WorkAccount& account = AccountOfRun();
        const std::lock_guard<std::timed_mutex> lock(account.Mutex);
        account.Disk = object->Name;
        account.HasOtherWork = true;
    }
    SetLastError(ERROR_SUCCESS);
    return RegisterObject(std::move(object));
}

// ---------------------------------------------------------------------------------------------------------------
// Transfers

int TransferThroughBounce(OpenObject& file, bool writing, uint8_t* memory, size_t length, size_t& done) {
    done = 0;
    const size_t blockSize = std::max<size_t>(bounceSize, file.SectorSize);
    if (file.Bounce == nullptr) {
        void* block = nullptr;
        // Page alignment satisfies every device whose sector is no larger than a page; larger ones need their own.
        const auto alignment = std::max<size_t>({4096, file.SectorSize, file.MemoryAlignment});
        if (posix_memalign(&block, alignment, blockSize) != 0) {
            return ENOMEM;
        }
        file.Bounce.reset(block);
    }
    auto* const bounce = static_cast<uint8_t*>(file.Bounce.get());
    while (done < length) {
        const size_t piece = std::min(length - done, blockSize);
        if (writing) {
            std::memcpy(bounce, memory + done, piece);
        }
        size_t moved = 0;
        const int code = TransferStretch(file, writing, bounce, piece, file.Position + done, moved);
        if (!writing) {
            std::memcpy(memory + done, bounce, moved);
        }
        done += moved;
        if (code != 0 || moved < piece) {
            return code;
        }
    }
    return 0;
}

// The transfers of the handle that go on beside the program, begun now where it has none. Null where it can have none.
OverlappedTransfers* BeginOverlapped(OpenObject& file) {
    // Those of an unbuffered file follow rules of their own.
    const bool mayOverlap = file.Kind == ObjectKind::Disk || file.SectorSize == 1;
    if (mayOverlap && OverlappedOf(file) == nullptr) {
        file.Overlapped = OverlappedTransfers::Start(file);
    }
    return file.Overlapped.get();
}

bool IsLong(size_t length) {
    return length >= OverlappedTransfers::shortest && length <= OverlappedTransfers::longest;
}

// Moves the bytes of a transfer at the handle's position, as far as it goes. Gives ERROR_SUCCESS or the error.
DWORD MoveBytes(OpenObject& file, bool writing, uint8_t* memory, size_t length, size_t& done) {
    const bool misaligned = reinterpret_cast<uintptr_t>(memory) % file.MemoryAlignment != 0;
    const int code = misaligned ? TransferThroughBounce(file, writing, memory, length, done)
                                : TransferStretch(file, writing, memory, length, file.Position, done);
    return ErrorOfTransfer(file, code, done, length);
}

// Whether the file still reaches to here. What was read ahead of a file that was cut meanwhile is in it no more.
bool ReachesTo(const OpenObject& file, uint64_t end) {
    struct stat status {};
    return file.Kind == ObjectKind::Disk ||
           (fstat(file.Descriptor, &status) == 0 && static_cast<uint64_t>(status.st_size) >= end);
}

DWORD ReadBytes(OpenObject& file, uint8_t* memory, size_t length, size_t& done) {
    OverlappedTransfers* const overlapped = OverlappedOf(file);
    if (overlapped != nullptr && overlapped->TakeAhead(file.Position, memory, length) &&
        ReachesTo(file, file.Position + length)) {
        done = length;
        return ERROR_SUCCESS;
    }
    return MoveBytes(file, false, memory, length, done);
}

// Has the next read of a sequential reader begun with while the program is busy with this one.
void KeepAhead(OpenObject& file, uint64_t start, uint64_t end) {
    const bool follows = start == file.LastReadEnd && file.LastReadIsLong;
    const auto length = static_cast<size_t>(end - start);
    file.LastReadEnd = end;
    file.LastReadIsLong = IsLong(length);
    if (!follows || !file.LastReadIsLong) {
        return;
    }
    size_t next = length;
    if (file.Kind == ObjectKind::Disk) {
        next = static_cast<size_t>(std::min<uint64_t>(next, file.Length - end));
    }
    if (next == 0) {
        return;
    }
    if (OverlappedTransfers* const overlapped = BeginOverlapped(file)) {
        overlapped->ReadAhead(end, next);
    }
}

// Notes a write to the stretch [start, end), and gives what a sequential writer of a file has finished by now and is to
// be sent to its disk.
WrittenStretch NoteWrite(OpenObject& file, uint64_t start, uint64_t end) {
    if (start != file.LastWriteEnd) {
        file.SendStart = start;
    }
    file.LastWriteEnd = end;
    file.LastWriteIsLong = IsLong(static_cast<size_t>(end - start));
    if (file.Kind == ObjectKind::Disk || end - file.SendStart < sendStretch) {
        return {};
    }
    const WrittenStretch finished{file.SendStart, end};
    file.SendStart = end;
    return finished;
}

// Has the bytes written beside the program where they go on where the write before ended, on a disk also behind it.
// False where they were not taken. The first write is none of these: what is wrong from the start is told at once.
bool WriteBehind(OpenObject& file, const uint8_t* memory, size_t length) {
    const bool follows =
        file.Kind == ObjectKind::Disk ? file.Position >= file.LastWriteEnd : file.Position == file.LastWriteEnd;
    OverlappedTransfers* const overlapped =
        follows && file.LastWriteIsLong && IsLong(length) ? BeginOverlapped(file) : nullptr;
    if (overlapped == nullptr) {
        return false;
    }
    const WrittenStretch finished = NoteWrite(file, file.Position, file.Position + length);
    if (!overlapped->WriteBehind(file.Position, memory, length, finished)) {
        file.LastWriteEnd = file.Position;
        return false;
    }
    return true;
}

DWORD WriteBytes(OpenObject& file, uint8_t* memory, size_t length, size_t& done) {
    const bool isDisk = file.Kind == ObjectKind::Disk;
    if (OverlappedTransfers* const overlapped = OverlappedOf(file)) {
        overlapped->DropAhead();
    }
    file.IsWritten = true;
    file.IsUnflushed = isDisk;
    if (isDisk) {
        EnterDiskWrite();
    }
    if (WriteBehind(file, memory, length)) {
        done = length;
        return ERROR_SUCCESS;
    }
    if (const DWORD error = SettleWrites(file); error != ERROR_SUCCESS) {
        return error;
    }
    if (!isDisk) {
        if (const int code = AllocateGap(file); code != 0) {
            return ErrorFromErrno(code, Subject::File);
        }
    }
    const DWORD error = MoveBytes(file, true, memory, length, done);
    if (error == ERROR_SUCCESS && (isDisk || file.SectorSize == 1)) {
        const WrittenStretch finished = NoteWrite(file, file.Position, file.Position + done);
        OverlappedTransfers* const overlapped = finished.From < finished.To ? BeginOverlapped(file) : nullptr;
        if (overlapped != nullptr && !overlapped->Send(finished)) {
            file.SendStart = finished.From; // with what comes next
        }
    }
    return error;
}

BOOL Transfer(const char* call, HANDLE handle, bool writing, uint8_t* memory, DWORD length, LPDWORD transferred,
              LPOVERLAPPED overlapped) {
    if (overlapped != nullptr) {
        EndUnsupported(call, "an overlapped transfer");
    }
    if (transferred == nullptr) {
        EndUnsupported(call, "a transfer without a count");
    }
    *transferred = 0;
    OpenObject* const file = FindObject(handle);
    if (file == nullptr) {
        return FALSE;
    }
    if ((file->Access & (writing ? GENERIC_WRITE : GENERIC_READ)) == 0) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    if (file->Position % file->SectorSize != 0 || length % file->SectorSize != 0) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    if (file->Kind == ObjectKind::SystemVolume) {
        // It is asked where it lies, and has no bytes here.
        return FailWith(ERROR_INVALID_FUNCTION);
    }
    if (length == 0) {
        return TRUE;
    }
    size_t wanted = length;
    const bool isDisk = file->Kind == ObjectKind::Disk;
    if (isDisk) {
        if (file->Position >= file->Length) {
            return FailWith(ERROR_SECTOR_NOT_FOUND);
        }
        wanted = static_cast<size_t>(std::min<uint64_t>(wanted, file->Length - file->Position));
    }
    if (!writing) {
        // What is read has to be what was written; on a disk, what its medium has of it.
        if (const DWORD error = SettleWrites(*file); error != ERROR_SUCCESS) {
            return FailWith(error);
        }
        if (isDisk && !FlushDisk(*file)) {
            return FALSE;
        }
    }

    size_t done = 0;
    const DWORD error = writing ? WriteBytes(*file, memory, wanted, done) : ReadBytes(*file, memory, wanted, done);
    *transferred = static_cast<DWORD>(done);
    if (error != ERROR_SUCCESS) {
        if (writing) {
            RecordFailure(*file, error);
        }
        return FailWith(error);
    }
    file->Position += done;
    if (!writing) {
        KeepAhead(*file, file->Position - done, file->Position);
    }
    return TRUE;
}

// ---------------------------------------------------------------------------------------------------------------
// MoveFileExW

// Gives `from` the name `to` unless something has that name. 0 or an errno value, EEXIST where the name is taken.
int RenameWithoutReplacing(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // A file system without the atomic form. A second name takes the place just as atomically.
    if (link(from.c_str(), to.c_str()) == 0) {
        if (unlink(from.c_str()) == 0) {
            return 0;
        }
        const int code = errno;
        (void)unlink(to.c_str());
        return code;
    }
    if (errno == EEXIST || errno == ENOENT || errno == EXDEV || errno == ENOSPC || errno == EROFS) {
        return errno;
    }
    // Nor can it give a file two names. An empty file claims the name, and only that file is replaced.
    const int claim = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, newFileMode);
    if (claim < 0) {
        return errno;
    }
    (void)close(claim);
    if (rename(from.c_str(), to.c_str()) == 0) {
        return 0;
    }
    const int code = errno;
    (void)unlink(to.c_str());
    return code;
}

DWORD ErrorOfRename(int code, const std::string& from, const std::string& to) {
    if (code == ENOENT) {
        struct stat status {};
        return lstat(from.c_str(), &status) != 0 ? ErrorOfPath(errno, from) : ERROR_PATH_NOT_FOUND;
    }
    return ErrorOfPath(code, to);
}

} // namespace

HANDLE WINAPI LinuxCreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                               DWORD disposition, DWORD flags, HANDLE templateFile) {
    RefuseUnsupportedOpen(access, share, security, disposition, flags, templateFile);
    const std::string hostPath = HostPath(path);
    if (hostPath.starts_with(R"(\\.\)") || hostPath.starts_with(R"(\\?\)")) {
        return OpenDevice(std::string_view(hostPath).substr(4), access, share, disposition, flags);
    }
    return OpenHostFile(hostPath, access, share, disposition, flags);
}

BOOL WINAPI LinuxReadFile(HANDLE file, LPVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED overlapped) {
    return Transfer("ReadFile", file, false, static_cast<uint8_t*>(buffer), length, transferred, overlapped);
}

BOOL WINAPI LinuxWriteFile(HANDLE file, LPCVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED overlapped) {
    // The memory is only read from; the common path below handles both directions.
    auto* const memory = static_cast<uint8_t*>(const_cast<void*>(buffer));
    return Transfer("WriteFile", file, true, memory, length, transferred, overlapped);
}

BOOL WINAPI LinuxSetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition, DWORD method) {
    OpenObject* const file = FindObject(handle);
    if (file == nullptr) {
        return FALSE;
    }
    LONGLONG origin = 0;
    if (method == FILE_CURRENT) {
        origin = static_cast<LONGLONG>(file->Position);
    } else if (method == FILE_END && file->Kind == ObjectKind::File) {
        if (const DWORD error = SettleWrites(*file); error != ERROR_SUCCESS) {
            return FailWith(error);
        }
        struct stat status {};
        if (fstat(file->Descriptor, &status) != 0) {
            return FailWith(ErrorFromErrno(errno, Subject::File));
        }
        origin = status.st_size;
    } else if (method != FILE_BEGIN) {
        EndUnsupported("SetFilePointerEx", "method", method);
    }
    LONGLONG position = 0;
    if (__builtin_add_overflow(origin, distance.QuadPart, &position)) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    if (position < 0) {
        return FailWith(ERROR_NEGATIVE_SEEK);
    }
    file->Position = static_cast<uint64_t>(position);
    if (newPosition != nullptr) {
        newPosition->QuadPart = position;
    }
    return TRUE;
}

BOOL WINAPI LinuxGetFileSizeEx(HANDLE handle, PLARGE_INTEGER size) {
    OpenObject* const file = FindObject(handle);
    if (file == nullptr) {
        return FALSE;
    }
    if (file->Kind != ObjectKind::File) {
        // A disk has no file size; its length is a question for DeviceIoControl.
        return FailWith(ERROR_INVALID_FUNCTION);
    }
    if (const DWORD error = SettleWrites(*file); error != ERROR_SUCCESS) {
        return FailWith(error);
    }
    struct stat status {};
    if (fstat(file->Descriptor, &status) != 0) {
        return FailWith(ErrorFromErrno(errno, Subject::File));
    }
    size->QuadPart = status.st_size;
    return TRUE;
}

BOOL WINAPI LinuxCloseHandle(HANDLE handle) {
    const std::unique_ptr<OpenObject> object = UnregisterObject(handle);
    if (object == nullptr) {
        return FALSE;
    }
    if (object->IsWritten) {
        CloseWritten(*object);
        if (object->Kind == ObjectKind::Disk) {
            EnterDiskClose();
        }
        return TRUE;
    }
    EndOverlapped(*object);
    const int descriptor = std::exchange(object->Descriptor, -1);
    // The handle is gone whatever close says; after EINTR the descriptor is gone as well.
    if (descriptor >= 0 && close(descriptor) != 0 && errno != EINTR) {
        return FailWith(ErrorFromErrno(errno, object->Kind == ObjectKind::Disk ? Subject::Disk : Subject::File));
    }
    return TRUE;
}

DWORD WINAPI LinuxGetFileAttributesA(LPCSTR path) {
    constexpr DWORD reparsePoint = 0x00000400;
    const std::string hostPath = path;
    struct stat status {};
    // The name itself is asked about, as on Windows: a link whose target is missing still has the name.
    if (lstat(path, &status) != 0) {
        (void)FailWith(ErrorOfPath(errno, hostPath));
        return INVALID_FILE_ATTRIBUTES;
    }
    DWORD attributes = 0;
    if (S_ISLNK(status.st_mode)) {
        attributes |= reparsePoint;
        struct stat target {};
        if (stat(path, &target) == 0) {
            status = target;
        }
    }
    if (S_ISDIR(status.st_mode)) {
        attributes |= FILE_ATTRIBUTE_DIRECTORY;
    } else if ((status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) {
        attributes |= FILE_ATTRIBUTE_READONLY;
    }
    return attributes != 0 ? attributes : FILE_ATTRIBUTE_NORMAL;
}

BOOL WINAPI LinuxMoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
    if (flags != MOVEFILE_WRITE_THROUGH) {
        EndUnsupported("MoveFileExW", "flags", flags);
    }
    const std::string source = HostPath(from);
    const std::string target = HostPath(to);
    // Everything that the sync will need is opened before anything changes.
    const OwnedDescriptor file(open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file.IsOpen()) {
        return FailWith(ErrorOfPath(errno, source));
    }
    const OwnedDescriptor sourceFolder(open(FolderOfHostPath(source).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const OwnedDescriptor targetFolder(open(FolderOfHostPath(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (IsHeldByAnother(file.Get())) {
        return FailWith(ERROR_SHARING_VIOLATION);
    }
    // The bytes first: whoever sees the new name after a power failure must find them all under it.
    if (fsync(file.Get()) != 0) {
        return FailWith(ErrorFromErrno(errno, Subject::File));
    }
    {
        WorkAccount& account = AccountOfRun();
        const std::lock_guard<std::timed_mutex> lock(account.Mutex);
        if (const int code = RenameWithoutReplacing(source, target); code != 0) {
            return FailWith(ErrorOfRename(code, source, target));
        }
        account.File.clear();
    }
    // FAT keeps length and place of a file in the folder's entry, and the new entry has neither until the file is
    // synced once more: the folder alone would bring an empty file to the disk.
    if (fsync(file.Get()) != 0) {
        return FailWith(ErrorFromErrno(errno, Subject::File));
    }
    if (const int code = SyncFolder(targetFolder.Get(), file.Get()); code != 0) {
        return FailWith(ErrorFromErrno(code, Subject::File));
    }
    struct stat sourceStatus {};
    struct stat targetStatus {};
    const bool sameFolder = sourceFolder.IsOpen() && targetFolder.IsOpen() &&
                            fstat(sourceFolder.Get(), &sourceStatus) == 0 &&
                            fstat(targetFolder.Get(), &targetStatus) == 0 &&
                            sourceStatus.st_dev == targetStatus.st_dev && sourceStatus.st_ino == targetStatus.st_ino;
    if (!sameFolder) {
        if (const int code = SyncFolder(sourceFolder.Get(), file.Get()); code != 0) {
            return FailWith(ErrorFromErrno(code, Subject::File));
        }
    }
    if (const int code = FlushBehindFolder(file.Get()); code != 0) {
        return FailWith(ErrorFromErrno(code, Subject::File));
    }
    return TRUE;
}
