// On which disks the root folder lies.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace vornix::platform {

// A stretch of a disk: the partition, or the whole disk, that something lies on.
struct HostExtent {
    dev_t Disk = 0;
    uint64_t Start = 0; // bytes
    uint64_t Length = 0;
};

// The stretches of numbered disks that the file system at "/" lies on, found down through partitions, logical
// volumes, encryption, RAID, loop devices and the layers of an overlay. Empty where it lies in memory, on the network,
// or on a pool of disks that the kernel does not name.
std::vector<HostExtent> FindRootExtents();

} // namespace vornix::platform
