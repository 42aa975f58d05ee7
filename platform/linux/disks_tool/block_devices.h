// The block devices of the host as lsblk shows them: what lies upon what, and where it is mounted.
#pragma once

#include <string>
#include <vector>

namespace vornix::disks_tool {

struct BlockDevice {
    std::string Name; // the kernel's, as below /sys/class/block
    std::string Path;
    std::string Number; // "8:1"
    std::string Type;   // disk, part, lvm, crypt, raid1, mpath, loop ...
    std::string Model;
    std::string Serial;
    std::string Transport;
    std::vector<std::string> MountPoints; // "[SWAP]" for swap
    std::vector<BlockDevice> Children;    // partitions, and what is composed of this one
};

struct BlockDevices {
    std::vector<BlockDevice> Devices;
    std::string Error; // why lsblk did not tell; empty where it did
};

// Runs lsblk.
BlockDevices AskLsblk();

// Reads what `lsblk --json` printed.
BlockDevices ParseLsblk(const std::string& output);

} // namespace vornix::disks_tool
