// Whole disks of the host as the numbered disks of the program, and the volume that the system runs from.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "host_disks.h"
#include "open_objects.h"

namespace vornix::platform {

// The whole disks in the order of their numbers. Looked up once in a run, so that a number means the same disk from the
// first question about it to the last write. Ends the process where the numbers of this boot are damaged.
const std::vector<HostDisk>& HostDisks();

// Opens disk `number` for CreateFileW. Null with the last error recorded if it cannot be had.
std::unique_ptr<OpenObject> OpenDisk(uint64_t number, DWORD access, DWORD share, DWORD flags);

// Opens the volume that holds the root folder; it can only be asked for its extents.
std::unique_ptr<OpenObject> OpenSystemVolume(DWORD access);

} // namespace vornix::platform
