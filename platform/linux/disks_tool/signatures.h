// What lies on a disk or a partition by its own account: file system, swap, member of a volume group or array.
#pragma once

#include <string>

namespace vornix::disks_tool {

struct Signature {
    std::string Type;           // libblkid's word for it: "ext4", "LVM2_member"; empty where nothing is known
    std::string Label;          // may hold anything
    std::string PartitionTable; // "gpt", "dos"; empty where there is none
};

// Looks at the device that is open for reading at `descriptor`, for as long as patience lasts: of a disk that does not
// answer, the type is "does not answer".
Signature FindSignature(int descriptor);

} // namespace vornix::disks_tool
