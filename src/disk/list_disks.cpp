// The list-disks command.
#include "disk/list_disks.h"

#include <cstdio>

#include "cli/progress.h"
#include "disk/physical_disk.h"

namespace vornix {

void ListDisks() {
    constexpr int lastListedDisk = 15;
    for (int disk = 0; disk <= lastListedDisk; ++disk) {
        const HANDLE device = CreateFileW(FormatDiskPath(disk).c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        if (device == INVALID_HANDLE_VALUE) {
            continue;
        }
        const DiskGeometry geometry = GetDiskGeometry(device);
        std::printf("PhysicalDrive%-2d  %8.2f GiB  sector %u bytes%s\n", disk, BytesToGiB(geometry.length),
                    geometry.sectorSize, IsSystemDisk(disk) ? "   <- currently booted system disk" : "");
        CloseHandle(device);
    }
}

} // namespace vornix
