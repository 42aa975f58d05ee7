// What vornix-disks has to say of each disk, put together from the numbers, lsblk, libblkid and the kernel's folders.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "block_devices.h"
#include "device_users.h"
#include "linux/disk_numbers.h"
#include "signatures.h"

namespace vornix::disks_tool {

// A partition, or the whole of a disk that has none.
struct ContentReport {
    std::string Node;
    uint64_t Start = 0; // bytes
    uint64_t Size = 0;
    Signature Found;
    std::vector<std::string> MountPoints;
    std::vector<DeviceUser> Users; // mounts among them
};

struct DiskReport {
    platform::HostDisk Disk;
    std::string Node;
    uint64_t Size = 0;       // bytes
    uint32_t SectorSize = 0; // bytes
    bool IsReadOnly = false;
    bool IsRemovable = false;
    bool IsSystem = false;
    std::string Model;
    std::string Serial;
    std::string Transport;
    std::string PartitionTable;
    std::string WhyNotOpened; // empty where the disk can be opened for reading
    std::vector<ContentReport> Contents;
    std::vector<DeviceUser> Users; // of the whole disk; those of its partitions stand with them

    // Whether anything uses the disk or a partition of it, so that it cannot be written.
    bool IsInUse() const;
};

struct Report {
    platform::NumberedDisks Numbers;
    std::vector<DiskReport> Disks;
    std::string Error; // what could not be looked at; empty where everything was
};

Report MakeReport(const platform::HostRoots& roots, const BlockDevices& devices);

} // namespace vornix::disks_tool
