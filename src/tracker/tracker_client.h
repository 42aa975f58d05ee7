// The program's client of the change tracker. The driver may be missing at any time, and a run without it is an
// ordinary run: nothing here is fatal and nothing here prints. How far the bitmap proves anything is decided by the
// capture.
#pragma once

#include <windows.h>
#include <cstdint>
#include <vector>

#include "tracker/tracker_protocol.h"

namespace vornix {

// The tracker as one run sees it. The capture owns it and closes Device at its very end, if it was opened at all.
struct TrackerState {
    HANDLE Device = INVALID_HANDLE_VALUE;
    uint32_t DiskNumber = 0;
    bool Available = false; // false turns all use of the tracker off for the rest of the run
    TrackerStatus Status{}; // of the last successful query
    std::vector<uint8_t> Bitmap;
};

// Opens the device and attaches it to the disk. On success the tracker counts as available; on failure of the attach
// the device stays open.
bool TrackerOpen(TrackerState& state, uint32_t disk);

// Fetches status and bitmap. On failure the state is as before.
bool TrackerQuery(TrackerState& state);

// Whether `length` bytes of the disk, not 0, from `offset` on may have changed since the committed image. What lies
// beyond the bitmap counts as changed.
bool TrackerRangeChanged(const TrackerState& state, uint64_t offset, uint64_t length);

// Makes CurrentEpoch the committed one.
bool TrackerCommit(const TrackerState& state);

} // namespace vornix
