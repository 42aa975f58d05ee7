// The rule that decides, for one chunk, whether it is read from the live disk or from a shadow device.
#pragma once

#include <windows.h>
#include <cstdint>
#include <vector>

#include "snapshot/snapshot_session.h"

namespace vornix {

// Where to read a chunk: the handle, and the offset on it.
struct ReadSource {
    HANDLE Device;
    uint64_t Offset;
};

// With `vss`, the first range that holds the whole chunk serves it. A chunk is never split: one that lies only partly
// in a range, or across two, is read whole from the live disk.
ReadSource SelectReadSource(const std::vector<SnapshotRange>& ranges, bool vss, uint64_t offset, uint32_t length,
                            HANDLE liveDisk);

} // namespace vornix
