// On which disks the root folder lies.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "host_disks.h"

namespace vornix::platform {

// A stretch of a disk: the partition, or the whole disk, that something lies on.
struct HostExtent {
    dev_t Disk = 0;
    uint64_t Start = 0; // bytes
    uint64_t Length = 0;
};

// The stretches of the given disks that the file system at "/" lies on, found down through partitions, logical volumes,
// encryption, RAID, loop devices and the layers of an overlay; behind them those that the root folder of process 1 lies
// on where that is another one and can be told, of disks that are not among the first. Empty where all of this lies in
// memory, on the network, or on a pool of disks that the kernel does not name.
std::vector<HostExtent> FindRootExtents(const HostRoots& roots, const std::vector<HostDisk>& disks);

} // namespace vornix::platform
