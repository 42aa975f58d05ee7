// The last error and the translation of errno values into the codes of Windows.
#include "last_error.h"

#include <sys/stat.h>

#include <cerrno>

#include "host_paths.h"
#include "linux_calls.h"

namespace {

thread_local DWORD lastError = ERROR_SUCCESS;

} // namespace

DWORD WINAPI LinuxGetLastError() {
    return lastError;
}

extern "C" void WINAPI SetLastError(DWORD code) {
    lastError = code;
}

namespace vornix::platform {

DWORD ErrorFromErrno(int code, Subject subject) {
    switch (code) {
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
        return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES:
    case EPERM:
    case EISDIR:
        return ERROR_ACCESS_DENIED;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case EXDEV:
        return ERROR_NOT_SAME_DEVICE;
    case EROFS:
        return ERROR_WRITE_PROTECT;
    case ENOMEDIUM:
        return ERROR_NOT_READY;
    // An unreadable sector. Disks say ENODATA or EILSEQ for one; a file on such a disk says EIO, which for a disk
    // itself is a failure of the device.
    case ENODATA:
    case EILSEQ:
        return ERROR_CRC;
    case EIO:
        return subject == Subject::Disk ? ERROR_IO_DEVICE : ERROR_CRC;
    case EREMOTEIO:
        return ERROR_IO_DEVICE;
    case ENXIO:
    case ENODEV:
        return subject == Subject::Disk ? ERROR_DEVICE_NOT_CONNECTED : ERROR_FILE_NOT_FOUND;
    case EBUSY:
    case ETXTBSY:
        return ERROR_SHARING_VIOLATION;
    case ENOTTY:
        return ERROR_INVALID_FUNCTION;
    case EOPNOTSUPP:
    case ENOSYS:
        return ERROR_NOT_SUPPORTED;
    case EEXIST:
        return ERROR_ALREADY_EXISTS;
    case EINVAL:
        return ERROR_INVALID_PARAMETER;
    // A file that outgrows what its file system or a quota allows is a full disk to a program of Windows.
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return ERROR_DISK_FULL;
    case ETIMEDOUT:
        return ERROR_SEM_TIMEOUT;
    case ENAMETOOLONG:
        return ERROR_FILENAME_EXCED_RANGE;
    case EFAULT:
        return ERROR_NOACCESS;
    case ELOOP:
        return ERROR_CANT_RESOLVE_FILENAME;
    default:
        return ERROR_GEN_FAILURE;
    }
}

DWORD ErrorOfMissing(const std::string& path) {
    if (path.empty()) {
        return ERROR_PATH_NOT_FOUND;
    }
    struct stat folder {};
    const bool folderExists = stat(FolderOfHostPath(path).c_str(), &folder) == 0 && S_ISDIR(folder.st_mode);
    return folderExists ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

DWORD ErrorOfPath(int code, const std::string& path) {
    return code == ENOENT ? ErrorOfMissing(path) : ErrorFromErrno(code, Subject::File);
}

BOOL FailWith(DWORD error) {
    lastError = error;
    return FALSE;
}

} // namespace vornix::platform
