// The volumes of a described machine: their enumeration and what the device of a volume answers. Snapshots of them are
// the shadow service's.
#pragma once

#include "machine_description.h"
#include "open_objects.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vornix::bench {

// The searches of FindFirstVolumeW that a run has begun.
struct VolumeSearch {
    std::size_t Next = 0; // index of the volume that the next call names
    bool Closed = false;
};

// Answers an open of a volume whose extents are these.
OpenOutcome OpenVolume(const std::vector<ExtentDescription>& extents);

// The volume whose device has this path: its name without the trailing backslash. Null if there is none.
const VolumeDescription* FindVolumeByDevice(const MachineDescription& description, const std::string& path);

// The volume of this name, as enumerated. Null if there is none.
const VolumeDescription* FindVolumeByName(const MachineDescription& description, const std::string& name);

} // namespace vornix::bench
