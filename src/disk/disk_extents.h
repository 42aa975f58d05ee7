// Where a volume lies on its disks, as the volume itself answers it.
#pragma once

#include <windows.h>

#include <winioctl.h>

namespace vornix {

// A VOLUME_DISK_EXTENTS with room for nine extents in place of one. A volume of more does not fit, and its query fails.
struct DiskExtentsReply {
    DWORD NumberOfDiskExtents;
    DISK_EXTENT Extents[9];
};
static_assert(sizeof(DiskExtentsReply) == 224);

// Fills in where the open `volume` lies, over zeroes, and tells whether the volume answered.
bool QueryDiskExtents(HANDLE volume, DiskExtentsReply& reply);

} // namespace vornix
