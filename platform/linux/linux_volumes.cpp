// Volumes: the answers to their enumeration. There is no such thing as a Windows volume on this system, so the first
// question is answered as on a system that has none, and no search ever begins that could be continued or closed.
#include "last_error.h"
#include "linux_calls.h"

using namespace vornix::platform;

HANDLE WINAPI LinuxFindFirstVolumeW(LPWSTR, DWORD) {
    (void)FailWith(ERROR_NO_MORE_FILES);
    return INVALID_HANDLE_VALUE;
}

BOOL WINAPI LinuxFindNextVolumeW(HANDLE, LPWSTR, DWORD) {
    return FailWith(ERROR_INVALID_HANDLE);
}

BOOL WINAPI LinuxFindVolumeClose(HANDLE) {
    return FailWith(ERROR_INVALID_HANDLE);
}
