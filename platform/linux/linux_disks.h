// Whole disks of the host as the numbered disks of the program, and the volume that the system runs from.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "open_objects.h"

namespace vornix::platform {

struct HostDisk {
    std::string Name; // as the kernel calls it, with '!' where its node's path has '/'
    dev_t Device = 0;
};

// The whole disks; the index of a disk is its number. Hardware disks come first, in the order of their device
// numbers, then loop and network block devices that hold something, likewise. Looked up once in a run, so that a
// number means the same disk from the first question about it to the last write.
const std::vector<HostDisk>& HostDisks();

// Opens disk `number` for CreateFileW. Null with the last error recorded if it cannot be had.
std::unique_ptr<OpenObject> OpenDisk(uint64_t number, DWORD access, DWORD share, DWORD flags);

// Opens the volume that holds the root folder; it can only be asked for its extents.
std::unique_ptr<OpenObject> OpenSystemVolume(DWORD access);

} // namespace vornix::platform
