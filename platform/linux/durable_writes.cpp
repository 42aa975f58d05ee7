// Room for written bytes, and their way to the medium.
#include "durable_writes.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "disk_users.h"
#include "last_error.h"

namespace vornix::platform {

namespace {

bool filesStayInCache = false;

// Writes zeros over [from, to). Gives 0 or an errno value.
int WriteZeros(int descriptor, off_t from, off_t to) {
    constexpr off_t pieceSize = off_t{1} << 20;
    const std::vector<char> zeros(static_cast<size_t>(std::min(pieceSize, to - from)));
    while (from < to) {
        const auto length = static_cast<size_t>(std::min<off_t>(static_cast<off_t>(zeros.size()), to - from));
        const ssize_t written = pwrite(descriptor, zeros.data(), length, from);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return written < 0 ? errno : ENOSPC;
        }
        from += written;
    }
    return 0;
}

// The ordinary end of the runtime, as at the program's own fatal report: what was printed arrives, exit routines run.
[[noreturn]] void EndIncomplete(const OpenObject& object, DWORD error) {
    std::fprintf(stderr,
                 "FATAL: %s: not everything that was written reached the medium - do not trust it (GetLastError=%lu)\n",
                 object.Name.c_str(), static_cast<unsigned long>(error));
    std::exit(1);
}

// Gives 0 or an errno value.
int SyncFile(const OpenObject& file) {
    if (fsync(file.Descriptor) != 0) {
        return errno;
    }
    return file.IsNew ? SyncFolder(file.Folder.Get(), file.Descriptor) : 0;
}

} // namespace

int AllocateGap(OpenObject& file) {
    const auto position = static_cast<off_t>(file.Position);
    // Most writes go on where the one before ended.
    if (file.Position == file.LastWriteEnd) {
        return 0;
    }
    struct stat status {};
    if (fstat(file.Descriptor, &status) != 0) {
        return errno;
    }
    if (position <= status.st_size) {
        return 0;
    }
    while (fallocate(file.Descriptor, 0, status.st_size, position - status.st_size) != 0) {
        if (errno == EOPNOTSUPP || errno == ENOSYS) {
            // An unbuffered file takes whole sectors alone; there the hole stays one.
            return file.SectorSize == 1 ? WriteZeros(file.Descriptor, status.st_size, position) : 0;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

void RecordFailure(OpenObject& object, DWORD error) {
    if (object.Failure == ERROR_SUCCESS) {
        object.Failure = error;
    }
}

DWORD SettleWrites(OpenObject& object) {
    OverlappedTransfers* const overlapped = OverlappedOf(object);
    const DWORD error = overlapped != nullptr ? overlapped->Settle() : ERROR_SUCCESS;
    if (error != ERROR_SUCCESS) {
        RecordFailure(object, error);
    }
    return error;
}

BOOL FlushDisk(OpenObject& disk) {
    (void)SettleWrites(disk); // a failure there is the handle's
    if (disk.Failure != ERROR_SUCCESS) {
        return FailWith(disk.Failure);
    }
    if (disk.IsUnflushed && fsync(disk.Descriptor) != 0) {
        RecordFailure(disk, ErrorFromErrno(errno, Subject::Disk));
        return FailWith(disk.Failure);
    }
    disk.IsUnflushed = false;
    return TRUE;
}

int SyncFolder(int folder, int file) {
    if (folder >= 0) {
        if (fsync(folder) == 0) {
            return 0;
        }
        if (errno != EINVAL && errno != EBADF) {
            return errno;
        }
    }
    return syncfs(file) == 0 ? 0 : errno;
}

int FlushBehindFolder(int file) {
    struct statfs system {};
    if (fstatfs(file, &system) != 0 || system.f_type != EXT4_SUPER_MAGIC) {
        return 0;
    }
    struct stat status {};
    if (fstat(file, &status) == 0) {
        (void)fchmod(file, status.st_mode & ~static_cast<mode_t>(S_IFMT));
    }
    return fsync(file) == 0 ? 0 : errno;
}

void LeaveFilesInCache() {
    filesStayInCache = true;
}

void CloseWritten(OpenObject& object) {
    const bool isDisk = object.Kind == ObjectKind::Disk;
    const Subject subject = isDisk ? Subject::Disk : Subject::File;
    (void)SettleWrites(object); // a failure there is the handle's
    EndOverlapped(object);
    if (object.Failure == ERROR_SUCCESS && isDisk) {
        DropCachesOfPartitions(object.Device);
        (void)FlushDisk(object);
    } else if (object.Failure == ERROR_SUCCESS && !filesStayInCache) {
        if (const int code = SyncFile(object); code != 0) {
            RecordFailure(object, ErrorFromErrno(code, subject));
        }
        // Advice: a file system that lives in memory keeps them.
        (void)posix_fadvise(object.Descriptor, 0, 0, POSIX_FADV_DONTNEED);
    }
    if (object.Failure != ERROR_SUCCESS) {
        EndIncomplete(object, object.Failure);
    }
    // Some file systems, and quotas, tell only here. Interrupted, the descriptor is gone and everything was synced.
    if (close(std::exchange(object.Descriptor, -1)) != 0 && errno != EINTR) {
        EndIncomplete(object, ErrorFromErrno(errno, subject));
    }
}

} // namespace vornix::platform
