// Raw disks by their number: opening them, what they report about themselves, and which one is the system's. Nothing
// here knows of partitions, file systems or images.
#pragma once

#include <windows.h>
#include <cstdint>
#include <string>

namespace vornix {

// What a disk reports about itself.
struct DiskGeometry {
    uint64_t length = 0;     // bytes of the disk
    uint32_t sectorSize = 0; // bytes per sector
};

// The device path of the disk with that number.
std::wstring FormatDiskPath(int disk);

// Opens a disk for reading, unbuffered, and shared for reading and writing, since it may be in use while it is read.
// The caller owns the handle. Ends the process where the disk cannot be opened.
HANDLE OpenDiskForRead(int disk);

// Opens a disk for reading and writing, unbuffered and shared with nobody. That is the program's whole protection of a
// target: it locks and dismounts nothing. The caller owns the handle. Ends the process where the disk cannot be opened,
// which for a disk with a mounted volume is the rule.
HANDLE OpenDiskExclusive(int disk);

// Ends the process where the device does not answer.
DiskGeometry GetDiskGeometry(HANDLE device);

// The number of the disk that holds C:. Asked anew at each call, nothing is kept. Ends the process where C: cannot be
// opened or does not say where it lies.
DWORD GetSystemDiskNumber();

// Whether `disk` is the one that holds C:.
bool IsSystemDisk(int disk);

// Makes the system read the partition table of a disk again that was just written. A disk that does not do so is left
// to the rescan that the closing message asks for, so there is no result.
void RefreshPartitionTable(HANDLE device);

} // namespace vornix
