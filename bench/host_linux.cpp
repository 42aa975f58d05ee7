// The described machine's host on Linux. See host.h and real_calls.h.
#include "host.h"

#include "../platform/linux/durable_writes.h"
#include "../platform/linux/linux_calls.h"
#include "../platform/linux/overlapped_transfers.h"
#include "real_calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <limits>
#include <stdexcept>

#define VORNIX_REAL_SHARED(result, convention, name, parameters, arguments)
#define VORNIX_REAL_SWAPPED(result, convention, name, parameters, arguments)                                           \
    result convention Real##name parameters {                                                                          \
        return Linux##name arguments;                                                                                  \
    }
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    VORNIX_REAL_##kind(result, convention, name, parameters, arguments)
#include "../platform/calls.def"
#undef VORNIX_CALL
#undef VORNIX_REAL_SWAPPED
#undef VORNIX_REAL_SHARED

namespace vornix::bench {

namespace {

std::uint32_t ErrorFromErrno(int code) {
    switch (code) {
    case EACCES:
    case EPERM:
    case EBADF: // a file opened for reading alone
        return ERROR_ACCESS_DENIED;
    case EROFS:
        return ERROR_WRITE_PROTECT;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return ERROR_DISK_FULL;
    case EIO:
        return ERROR_IO_DEVICE;
    default:
        return ERROR_GEN_FAILURE;
    }
}

class LinuxFile final : public HostFile {
public:
    explicit LinuxFile(int descriptor) : descriptor_(descriptor) {}
    LinuxFile(const LinuxFile&) = delete;
    LinuxFile& operator=(const LinuxFile&) = delete;
    ~LinuxFile() override { close(descriptor_); }

    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length) override {
        return TransferAll(offset, length, [&](std::size_t done, off_t position) {
            return pread(descriptor_, static_cast<char*>(buffer) + done, length - done, position);
        });
    }

    HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) override {
        return TransferAll(offset, length, [&](std::size_t done, off_t position) {
            return pwrite(descriptor_, static_cast<const char*>(buffer) + done, length - done, position);
        });
    }

    std::optional<std::uint64_t> FindSize() override {
        struct stat status;
        if (fstat(descriptor_, &status) != 0) {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(status.st_size);
    }

private:
    // Repeats step(done, position) until all is transferred, the file ends or the host fails.
    template <typename Step>
    static HostTransfer TransferAll(std::uint64_t offset, std::size_t length, Step step) {
        HostTransfer transfer;
        while (transfer.Count < length) {
            if (offset + transfer.Count > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
                transfer.Error = ERROR_INVALID_PARAMETER;
                break;
            }
            const ssize_t count = step(transfer.Count, static_cast<off_t>(offset + transfer.Count));
            if (count > 0) {
                transfer.Count += static_cast<std::size_t>(count);
            } else if (count == 0) {
                break;
            } else if (errno != EINTR) {
                transfer.Error = ErrorFromErrno(errno);
                break;
            }
        }
        return transfer;
    }

    int descriptor_;
};

} // namespace

std::unique_ptr<HostFile> HostFile::Open(const std::string& path, Mode mode) {
    int flags = O_CLOEXEC;
    if (mode == Mode::Read) {
        flags |= O_RDONLY;
    } else if (mode == Mode::ReadWrite) {
        flags |= O_RDWR;
    } else {
        flags |= O_RDWR | O_CREAT | O_TRUNC;
    }
    const int descriptor = open(path.c_str(), flags, 0666);
    if (descriptor < 0) {
        return nullptr;
    }
    // A folder opens for reading, but it is no file.
    struct stat status;
    if (fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode)) {
        close(descriptor);
        return nullptr;
    }
    return std::make_unique<LinuxFile>(descriptor);
}

void PrepareHost() {
    // Images are files of the host. Thousands of runs would wait for its disk at each close, and none of them outlives
    // a loss of power.
    platform::LeaveFilesInCache();
    // Calls come one by one, and what each of them did is done when it comes back.
    platform::KeepTransfersSynchronous();
}

std::string JoinHostPath(const std::string& folder, const std::string& name) {
    return name.starts_with('/') ? name : folder + "/" + name;
}

std::string Utf8FromNarrow(const char* text) {
    return text == nullptr ? "" : text;
}

void EndProcess(unsigned int status) {
    _exit(static_cast<int>(status));
}

void RaiseMissingLibrary() {
    throw std::runtime_error("VSSAPI.DLL is not installed on this machine");
}

void EndUnsupported(const std::string& what) {
    std::fprintf(stderr, "vornix-bench: the described machine does not imitate %s\n", what.c_str());
    EndProcess(3);
}

} // namespace vornix::bench
