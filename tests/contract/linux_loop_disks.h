// Loop devices for the tests of disks: real block devices over files, attached before the first test because the
// platform numbers the disks once in a run.
#pragma once

#include <windows.h>

#include <sys/types.h>

#include <cstdint>
#include <string>

// One attached loop device.
struct LoopDisk {
    std::string Name; // "loop3"; empty where none could be attached
    std::string File; // a path to the file behind it, for this process alone
    int Number = -1;  // of its PhysicalDrive
    uint64_t Length = 0;
    uint32_t SectorSize = 0;
};

struct LoopDisks {
    LoopDisk Small;    // 512-byte sectors
    LoopDisk Large;    // 4096-byte sectors
    LoopDisk ReadOnly; // 512-byte sectors, write-protected
    std::string WhyNone;
};

// Empty, with the reason, where this user or machine has no loop devices.
const LoopDisks& TheLoopDisks();

HANDLE OpenNumber(int number, DWORD access, DWORD share, DWORD flags = FILE_FLAG_NO_BUFFERING);

BOOL UpdateProperties(HANDLE disk, DWORD* returned = nullptr);
