// Who uses block devices, as far as lsblk does not tell: processes that have them open, loop devices on them, mounts
// that other processes see.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "linux/host_disks.h"

namespace vornix::disks_tool {

struct DeviceUser {
    std::string Kind; // "mount", "foreign_mount", "swap", "device", "loop", "process", "kernel"
    std::string What; // the mount point, the device, or the process; of a foreign mount one process that sees it
};

// The users of each device that has any. Sees what the rights of this process let it see.
std::map<dev_t, std::vector<DeviceUser>> FindDeviceUsers(const platform::HostRoots& roots);

} // namespace vornix::disks_tool
