// Who uses a disk, beyond what the kernel's exclusive claim on it tells, and what they have of it in memory.
#pragma once

#include <sys/types.h>

#include <vector>

#include "owned_descriptor.h"

namespace vornix::platform {

// Whether anything uses the whole disk `device`, which is open at `descriptor` with the kernel's exclusive claim: a
// partition of it that somebody has open, a loop device on it or on a partition, or a device composed of either; and,
// where the disk is itself a loop device on another one, anything that uses that one. Claims on those below are put
// into `claims`; while they are open nobody can mount what lies there.
//
// Looks at the partitions that the kernel knows, and leaves them as they were. Needs the rights of an administrator: to
// others the kernel does not say whether a partition is open, and this then counts as unused.
bool IsDiskInUse(int descriptor, dev_t device, std::vector<OwnedDescriptor>& claims);

// Has the kernel forget what it holds in memory of the disk's partitions, so that nobody reads there what was written
// over.
void DropCachesOfPartitions(dev_t disk);

} // namespace vornix::platform
