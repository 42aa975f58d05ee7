// Transfers as the kernel does them.
#include "raw_transfers.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "last_error.h"

namespace vornix::platform {

namespace {

// The kernel cuts a single transfer just below 2 GiB; this is a multiple of any sector size.
constexpr size_t largestPiece = size_t{1} << 30;

// What the transfer of a disk that ended in front of its length is called.
DWORD ErrorOfShortDisk(int descriptor) {
    uint64_t length = 0;
    const bool isThere = ioctl(descriptor, BLKGETSIZE64, &length) == 0 && length != 0;
    return isThere ? ERROR_SECTOR_NOT_FOUND : ERROR_DEVICE_NOT_CONNECTED;
}

} // namespace

int TransferStretch(const OpenObject& file, bool writing, uint8_t* memory, size_t length, uint64_t position,
                    size_t& done) {
    done = 0;
    while (done < length) {
        const size_t piece = std::min(length - done, largestPiece);
        const auto offset = static_cast<off_t>(position + done);
        const ssize_t moved = writing ? pwrite(file.Descriptor, memory + done, piece, offset)
                                      : pread(file.Descriptor, memory + done, piece, offset);
        if (moved < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (moved == 0) {
            return writing ? ENOSPC : 0;
        }
        done += static_cast<size_t>(moved);
        // A direct transfer that stops within a sector has met the end of the file; from there it could not go on.
        if (file.MemoryAlignment > 1 && done % file.SectorSize != 0) {
            return 0;
        }
    }
    return 0;
}

DWORD ErrorOfTransfer(const OpenObject& file, int code, size_t done, size_t length) {
    const bool isDisk = file.Kind == ObjectKind::Disk;
    // A disk that is there no more has an end in front of everything.
    if (isDisk && done < length && (code == 0 || code == ENOSPC)) {
        return ErrorOfShortDisk(file.Descriptor);
    }
    return code == 0 ? ERROR_SUCCESS : ErrorFromErrno(code, isDisk ? Subject::Disk : Subject::File);
}

} // namespace vornix::platform
