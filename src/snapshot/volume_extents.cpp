// The enumeration of volumes and the query for where each one lies.
#include "snapshot/volume_extents.h"

#include <windows.h>
#include <array>

#include "disk/disk_extents.h"

namespace vornix {

namespace {

// Fills in where the volume lies if it is a single extent on that disk.
bool LocateOnDisk(VolumeExtent& volume, uint32_t disk) {
    const HANDLE device = CreateFileW(volume.DevicePath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        return false;
    }
    DiskExtentsReply reply;
    const bool answered = QueryDiskExtents(device, reply);
    CloseHandle(device);
    if (!answered || reply.NumberOfDiskExtents != 1 || reply.Extents[0].DiskNumber != disk) {
        return false;
    }
    volume.Start = static_cast<uint64_t>(reply.Extents[0].StartingOffset.QuadPart);
    volume.End = volume.Start + static_cast<uint64_t>(reply.Extents[0].ExtentLength.QuadPart);
    return true;
}

} // namespace

std::vector<VolumeExtent> FindVolumesOnDisk(uint32_t disk) {
    std::vector<VolumeExtent> volumes;
    std::array<WCHAR, 260> name{};
    const HANDLE search = FindFirstVolumeW(name.data(), static_cast<DWORD>(name.size()));
    if (search == INVALID_HANDLE_VALUE) {
        return volumes;
    }
    do {
        VolumeExtent volume{name.data(), name.data(), 0, 0};
        if (!volume.DevicePath.empty() && volume.DevicePath.back() == L'\\') {
            volume.DevicePath.pop_back();
        }
        if (LocateOnDisk(volume, disk)) {
            volumes.push_back(volume);
        }
    } while (FindNextVolumeW(search, name.data(), static_cast<DWORD>(name.size())));
    FindVolumeClose(search);
    return volumes;
}

} // namespace vornix
