// The three requests to the tracker, and the range test.
#include "tracker/tracker_client.h"

#include <cstring>

namespace vornix {

namespace {

bool SendRequest(HANDLE device, DWORD code, void* input, DWORD inputLength, void* output, DWORD outputLength) {
    DWORD returned = 0;
    return DeviceIoControl(device, code, input, inputLength, output, outputLength, &returned, nullptr) != FALSE;
}

} // namespace

bool TrackerOpen(TrackerState& state, uint32_t disk) {
    state.DiskNumber = disk;
    state.Device = CreateFileW(trackerDevicePath, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (state.Device == INVALID_HANDLE_VALUE) {
        return false;
    }
    TrackerDiskRequest request{state.DiskNumber, 0};
    if (!SendRequest(state.Device, IOCTL_TRACKER_ATTACH, &request, sizeof(request), nullptr, 0)) {
        return false;
    }
    state.Available = true;
    return true;
}

bool TrackerQuery(TrackerState& state) {
    TrackerDiskRequest request{state.DiskNumber, 0};
    TrackerStatus first{};
    // The result is left unexamined: a driver may fill in the status and still report that the bitmap found no room. A
    // failure that filled in nothing shows as a status of zeros.
    SendRequest(state.Device, IOCTL_TRACKER_QUERY, &request, sizeof(request), &first, sizeof(first));
    if (first.Active == 0 || first.TrackedExtent == 0) {
        return false;
    }

    const size_t bitmapBytes = first.BitmapBytes;
    std::vector<uint8_t> reply(sizeof(TrackerStatus) + bitmapBytes);
    if (!SendRequest(state.Device, IOCTL_TRACKER_QUERY, &request, sizeof(request), reply.data(),
                     static_cast<DWORD>(reply.size()))) {
        return false;
    }
    // What counts from here on is this second reply. How much of it the driver filled in is not looked at: the rest is
    // zero, which for the bitmap reads as "unchanged". So the driver is relied on to fill in BitmapBytes of it.
    std::memcpy(&state.Status, reply.data(), sizeof(state.Status));
    state.Bitmap.assign(reply.begin() + sizeof(TrackerStatus), reply.end());
    return true;
}

bool TrackerRangeChanged(const TrackerState& state, uint64_t offset, uint64_t length) {
    const uint32_t shift = state.Status.GranularityShift % 64;
    const uint64_t lastBit = (offset + length - 1) >> shift;
    for (uint64_t bit = offset >> shift; bit <= lastBit; ++bit) {
        const uint64_t byteIndex = bit / 8;
        if (byteIndex >= state.Bitmap.size() || (state.Bitmap[byteIndex] >> (bit % 8) & 1) != 0) {
            return true;
        }
    }
    return false;
}

bool TrackerCommit(const TrackerState& state) {
    TrackerCommitRequest request{state.DiskNumber, 0, state.Status.CurrentEpoch};
    return SendRequest(state.Device, IOCTL_TRACKER_COMMIT, &request, sizeof(request), nullptr, 0);
}

} // namespace vornix
