// The device records of Wendrel, the companion disk filter driver that records which parts of a disk were written since
// the image that was committed last. All fields are little-endian.
#pragma once

#include <windows.h>
#include <cstddef>
#include <cstdint>

#include <winioctl.h>

namespace vornix {

constexpr const wchar_t* trackerDevicePath = L"\\\\.\\Wendrel";

constexpr DWORD trackerDeviceType = 0x8C7D;

// Device requests, all synchronous.
constexpr DWORD IOCTL_TRACKER_ATTACH = CTL_CODE(trackerDeviceType, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr DWORD IOCTL_TRACKER_QUERY = CTL_CODE(trackerDeviceType, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr DWORD IOCTL_TRACKER_COMMIT = CTL_CODE(trackerDeviceType, 0x803, METHOD_BUFFERED, FILE_ANY_ACCESS);
static_assert(IOCTL_TRACKER_ATTACH == 0x8C7D2004);
static_assert(IOCTL_TRACKER_QUERY == 0x8C7D2008);
static_assert(IOCTL_TRACKER_COMMIT == 0x8C7D200C);

#pragma pack(push, 1)

// Input of ATTACH and QUERY.
struct TrackerDiskRequest {
    uint32_t DiskNumber; //  0
    uint32_t Reserved;   //  4  always 0
};

// Input of COMMIT.
struct TrackerCommitRequest {
    uint32_t DiskNumber; //  0
    uint32_t Reserved;   //  4  always 0
    uint64_t Epoch;      //  8  the whole CurrentEpoch of the query that the image was made under
};

// The head of a reply to QUERY; the bitmap follows it. Bit b of the bitmap (least significant bit of a byte first)
// covers the disk bytes from b shifted left by GranularityShift up to where bit b + 1 begins; a set bit means that they
// may have changed.
struct TrackerStatus {
    uint32_t Active;           //  0  0: the driver does not serve this disk
    uint32_t HasPreviousEpoch; //  4  0 after a reboot or a reload of the driver
    uint64_t PreviousEpoch;    //  8  of the image committed last
    uint64_t CurrentEpoch;     // 16  that an image made now will carry
    uint32_t OtherGap;         // 24  not 0: the bitmap does not prove what changed
    uint32_t Gap;              // 28  not 0: a write went by untracked
    uint64_t TrackedExtent;    // 32  0: the query failed
    uint32_t GranularityShift; // 40  taken modulo 64
    uint32_t BitmapBytes;      // 44
};

#pragma pack(pop)

static_assert(sizeof(TrackerDiskRequest) == 8);
static_assert(offsetof(TrackerDiskRequest, Reserved) == 4);
static_assert(sizeof(TrackerCommitRequest) == 16);
static_assert(offsetof(TrackerCommitRequest, Reserved) == 4);
static_assert(offsetof(TrackerCommitRequest, Epoch) == 8);
static_assert(sizeof(TrackerStatus) == 48);
static_assert(offsetof(TrackerStatus, HasPreviousEpoch) == 4);
static_assert(offsetof(TrackerStatus, PreviousEpoch) == 8);
static_assert(offsetof(TrackerStatus, CurrentEpoch) == 16);
static_assert(offsetof(TrackerStatus, OtherGap) == 24);
static_assert(offsetof(TrackerStatus, Gap) == 28);
static_assert(offsetof(TrackerStatus, TrackedExtent) == 32);
static_assert(offsetof(TrackerStatus, GranularityShift) == 40);
static_assert(offsetof(TrackerStatus, BitmapBytes) == 44);

} // namespace vornix
