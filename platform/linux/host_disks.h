// Which block devices of the host are whole disks, and what the kernel knows them by. Knows nothing of numbers
// (disk_numbers.h) and nothing of Windows.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vornix::platform {

// Where the platform looks for disks. The program looks at the host; tests give folders of their own.
struct HostRoots {
    std::string Sys = "/sys";
    std::string Dev = "/dev";
    std::string Proc = "/proc";
    std::string Run = "/run";
    std::string Root = "/";
    uid_t Owner = 0; // whose the registry of numbers has to be
};

// The roots that the program looks at. To be changed, by tests alone, before the first look at the disks.
HostRoots& TheHostRoots();

struct HostDisk {
    std::string Name; // as the kernel calls it, with '!' where its node's path has '/'
    dev_t Device = 0;
    bool IsHardware = false;
    // What no other disk has until the next boot, without blanks: the device number with the kernel's sequence number
    // of disks, or with size and serial on kernels before 5.15, which do not count them.
    std::string Identity;
    int Number = -1;
    bool IsNumberKept = false; // until the next boot; else the number is only the disk's rank
};

// The whole disks, not yet numbered: hardware disks in the order of their device numbers, then loop and network block
// devices that hold something, likewise. Empty where the kernel shows no block devices.
std::vector<HostDisk> FindWholeDisks(const HostRoots& roots);

// The path of the disk's node.
std::string NodeOf(const HostRoots& roots, const HostDisk& disk);

// Opens the disk's node with the flags of open(2). -1 with errno where it cannot be had; ENXIO where the name belongs
// to another disk by now, or to none.
int OpenNode(const HostRoots& roots, const HostDisk& disk, int flags);

// What the kernel shows in small files: the first line, whether it is neither empty nor 0, and a device number
// ("8:1"). Nothing where there is no such file.
std::string ReadFirstLine(const std::string& path);
bool IsAttributeSet(const std::string& path);
std::optional<dev_t> ReadDeviceNumber(const std::string& path);
std::optional<dev_t> ParseDeviceNumber(const std::string& text);

// The names in a folder in their order, without those that begin with a dot. Empty where there is no such folder.
std::vector<std::string> ListFolder(const std::string& path);

} // namespace vornix::platform
