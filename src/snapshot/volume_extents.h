// From a disk to the volumes that lie on it. The shadow copy service works on volumes, the program on disks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vornix {

// A volume that is one contiguous stretch of the wanted disk.
struct VolumeExtent {
    std::wstring VolumeName; // as enumerated, with its trailing backslash: what the shadow copy service is given
    std::wstring DevicePath; // without it: what can be opened, and what messages show
    uint64_t Start;          // disk offset of the volume's first byte
    uint64_t End;            // disk offset just past the volume
};

// The volumes that lie in exactly one extent on disk `disk`, in the order of the enumeration. It prints nothing and
// never fails: a volume that cannot be opened, or that spans several extents, is passed over and will be read live.
std::vector<VolumeExtent> FindVolumesOnDisk(uint32_t disk);

} // namespace vornix
