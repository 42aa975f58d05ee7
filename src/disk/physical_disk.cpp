// Raw disks through CreateFileW and DeviceIoControl.
#include "disk/physical_disk.h"

#include <cstdio>
#include <cstdlib>
#include <winioctl.h>

#include "cli/fatal.h"
#include "disk/disk_extents.h"

namespace vornix {

std::wstring FormatDiskPath(int disk) {
    return L"\\\\.\\PhysicalDrive" + std::to_wstring(disk);
}

HANDLE OpenDiskForRead(int disk) {
    const HANDLE device = CreateFileW(FormatDiskPath(disk).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        Fatal("could not open source disk for raw read (run as Administrator?)", 0);
    }
    return device;
}

HANDLE OpenDiskExclusive(int disk) {
    const HANDLE device = CreateFileW(FormatDiskPath(disk).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        const unsigned long lastError = GetLastError();
        std::fprintf(stderr,
                     "Could not open disk %d exclusively for writing (GetLastError=%lu).\n"
                     "This almost always means a volume on it is still mounted/in use.\n"
                     "Take it offline first: diskpart > select disk %d > offline disk\n",
                     disk, lastError, disk);
        std::exit(1);
    }
    return device;
}

DiskGeometry GetDiskGeometry(HANDLE device) {
    DWORD returned = 0;
    GET_LENGTH_INFORMATION lengthInfo{};
    if (!DeviceIoControl(device, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &lengthInfo, sizeof(lengthInfo), &returned,
                         nullptr)) {
        Fatal("IOCTL_DISK_GET_LENGTH_INFO failed", 0);
    }

    // Room for the fixed part alone: the partition and detection data behind it are not wanted. The disk size in this
    // answer is not used either; it is derived from the cylinders on some devices and then falls short.
    DISK_GEOMETRY_EX geometry{};
    static_assert(sizeof(geometry) == 40);
    if (!DeviceIoControl(device, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof(geometry), &returned,
                         nullptr)) {
        Fatal("IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed", 0);
    }
    return {static_cast<uint64_t>(lengthInfo.Length.QuadPart), geometry.Geometry.BytesPerSector};
}

DWORD GetSystemDiskNumber() {
    const HANDLE volume =
        CreateFileW(L"\\\\.\\C:", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (volume == INVALID_HANDLE_VALUE) {
        Fatal("could not open C: to determine the system disk number", 0);
    }
    DiskExtentsReply extents;
    const bool answered = QueryDiskExtents(volume, extents);
    CloseHandle(volume);
    if (!answered) {
        Fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 0);
    }
    // The count is not looked at: an answer without extents leaves the zeroed buffer and gives disk 0, and a C: that
    // spans several disks counts as lying on its first one.
    return extents.Extents[0].DiskNumber;
}

bool IsSystemDisk(int disk) {
    return GetSystemDiskNumber() == static_cast<DWORD>(disk);
}

void RefreshPartitionTable(HANDLE device) {
    DWORD returned = 0;
    // Unexamined on purpose: the disk is written, and nothing that is said here would change that.
    DeviceIoControl(device, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, &returned, nullptr);
}

} // namespace vornix
