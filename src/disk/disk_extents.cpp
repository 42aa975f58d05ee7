// The query for a volume's extents.
#include "disk/disk_extents.h"

#include <cstddef>

namespace vornix {

static_assert(offsetof(DiskExtentsReply, NumberOfDiskExtents) == offsetof(VOLUME_DISK_EXTENTS, NumberOfDiskExtents));
static_assert(offsetof(DiskExtentsReply, Extents) == offsetof(VOLUME_DISK_EXTENTS, Extents));

bool QueryDiskExtents(HANDLE volume, DiskExtentsReply& reply) {
    reply = {};
    DWORD returned = 0;
    return DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, &reply, sizeof(reply), &returned,
                           nullptr) != FALSE;
}

} // namespace vornix
