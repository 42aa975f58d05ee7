// Synchronous transfers in which anything short of the whole counts as a failure, on disks and image files alike.
#pragma once

#include <windows.h>
#include <cstdint>

namespace vornix {

// Moves the file pointer to `offset` bytes from the start.
inline bool MoveFilePointer(HANDLE file, uint64_t offset) {
    LARGE_INTEGER distance;
    distance.QuadPart = static_cast<LONGLONG>(offset);
    return SetFilePointerEx(file, distance, nullptr, FILE_BEGIN) != FALSE;
}

// Reads exactly `length` bytes at the file pointer, in one call.
inline bool ReadWhole(HANDLE file, void* buffer, uint32_t length) {
    DWORD transferred = 0;
    return ReadFile(file, buffer, length, &transferred, nullptr) && transferred == length;
}

// Writes exactly `length` bytes at the file pointer, in one call.
inline bool WriteWhole(HANDLE file, const void* buffer, uint32_t length) {
    DWORD transferred = 0;
    return WriteFile(file, buffer, length, &transferred, nullptr) && transferred == length;
}

} // namespace vornix
