// One run of the Volume Shadow Copy service over the volumes of one disk. Nothing in it is fatal: a failure at any step
// leaves the capture with fewer ranges, or with none, and the disk is read live there, with a line that says so.
#pragma once

#include <windows.h>
#include <cstdint>
#include <vector>

namespace vornix {

// One stretch of the source disk that a shadow device serves. The handle belongs to the session, which closes it.
struct SnapshotRange {
    uint64_t Start; // disk offset of the volume's first byte, which is the device's byte 0
    uint64_t End;   // disk offset just past the volume
    HANDLE Device;
};

// Takes a snapshot of every volume that lies on the disk and opens the shadow devices. Gives the ranges sorted by
// Start; an empty list means that every read is live. One session at most exists in a process. However the process ends
// through its ordinary exit, the session is ended with it.
std::vector<SnapshotRange> BeginSnapshotSession(uint32_t disk);

// Closes the shadow devices, tells the writers whether the backup was `completed`, removes the snapshot set and lets
// the service go. Can be called any number of times; whatever is done is cleared.
void EndSnapshotSession(bool completed);

} // namespace vornix
