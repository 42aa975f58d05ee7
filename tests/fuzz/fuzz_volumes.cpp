// Volumes with any names and extents, and the routing of reads over the ranges they give.
#include "fuzz_world.h"

#include <algorithm>

#include "snapshot/read_routing.h"
#include "snapshot/volume_extents.h"

using namespace vornix;
using namespace vornix::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetWorld();
    Input input(data, size);
    const auto disk = static_cast<uint32_t>(input.TakeNumber(1) % 4);
    const uint64_t offset = input.TakeNumber(6);
    const auto length = static_cast<uint32_t>(input.TakeNumber(4));
    while (!input.IsEmpty() && TheWorld().VolumeNames.size() < 8) {
        const Bytes name = input.TakeBytes(input.TakeNumber(1));
        // Names as the system gives them: all different.
        TheWorld().VolumeNames.emplace_back(name.begin(), name.end());
        TheWorld().VolumeNames.back().push_back(static_cast<char16_t>('0' + TheWorld().VolumeNames.size()));
        if (input.TakeNumber(1) % 2 != 0) {
            TheWorld().VolumeNames.back().push_back('\\');
        }
        TheWorld().VolumeExtents.push_back(input.TakeStretch());
    }

    const std::vector<VolumeExtent> volumes = FindVolumesOnDisk(disk);
    std::vector<SnapshotRange> ranges;
    for (const VolumeExtent& volume : volumes) {
        const bool hadBackslash = volume.VolumeName != volume.DevicePath;
        if (volume.VolumeName != volume.DevicePath + (hadBackslash ? L"\\" : L"")) {
            ReportBroken("a device path is the volume's name without one trailing backslash");
        }
        ranges.push_back({volume.Start, volume.End, reinterpret_cast<HANDLE>(ranges.size() + 1)});
    }
    const HANDLE live = reinterpret_cast<HANDLE>(size_t{1000});
    const ReadSource source = SelectReadSource(ranges, true, offset, length, live);
    if (source.Device == live) {
        if (source.Offset != offset) {
            ReportBroken("a live read is at the disk's own offset");
        }
    } else {
        const SnapshotRange& range = ranges[reinterpret_cast<size_t>(source.Device) - 1];
        if (offset < range.Start || offset + length > range.End || source.Offset != offset - range.Start) {
            ReportBroken("a read from a shadow device lies wholly inside its range");
        }
    }
    if (SelectReadSource(ranges, false, offset, length, live).Device != live) {
        ReportBroken("without snapshots every read is live");
    }
    return 0;
}
