// The last error of the calls, and what a failure of Linux is called on Windows. Each thread has its own last error,
// and a call that succeeds leaves it alone unless the published call sets it.
#pragma once

#include <windows.h>

#include <string>

namespace vornix::platform {

// What a failed operation was about, where Windows tells the same failure of Linux apart by it.
enum class Subject {
    File,
    Disk,
};

// The Windows code of a failure, from its errno value. A missing file or folder needs ErrorOfMissing instead, since
// Windows tells the two apart.
DWORD ErrorFromErrno(int code, Subject subject);

// The Windows code of ENOENT for this path: ERROR_PATH_NOT_FOUND where the folder that should hold it is missing,
// else ERROR_FILE_NOT_FOUND.
DWORD ErrorOfMissing(const std::string& path);

// The Windows code of a failed operation on this path.
DWORD ErrorOfPath(int code, const std::string& path);

// Records the error and gives FALSE, so that a failing answer is one statement.
BOOL FailWith(DWORD error);

} // namespace vornix::platform
