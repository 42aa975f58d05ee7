// The description of a machine: what DIR/machine.json and the tracker's file say, checked and with every default filled
// in. Reading only; the machine that the records describe is made of them elsewhere. bench/README.md gives the keys.
#pragma once

#include "faults.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vornix::bench {

// A description that cannot be used; the text says which value is wrong and why, in one line.
class DescriptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The host files that a description names, by name relative to its folder.
class DescriptionFiles {
public:
    virtual ~DescriptionFiles() = default;

    // The whole content; nothing if there is no such file or it cannot be read.
    virtual std::optional<std::string> ReadText(const std::string& name) const = 0;

    // The size in bytes; nothing if there is no such file.
    virtual std::optional<std::uint64_t> FindSize(const std::string& name) const = 0;
};

struct DiskDescription {
    std::uint32_t Number = 0;
    std::string
        File; // relative to the description's folder; empty only where OpenError keeps the disk from being opened
    std::uint32_t SectorSize = 512; // bytes
    std::uint64_t Length = 0;       // bytes, as the disk reports them
    bool InUse = false;
    std::uint32_t OpenError = 0;
};

// A stretch of a disk, in bytes.
struct ExtentDescription {
    std::uint32_t Disk = 0;
    std::uint64_t Start = 0;
    std::uint64_t Length = 0;
};

// What the shadow service does for a volume.
struct ShadowDescription {
    std::optional<std::string> File;         // the frozen bytes; absent: the service freezes the first extent itself
    bool DefaultDeviceObject = true;         // named by the service, in the order of adding
    std::optional<std::string> DeviceObject; // where not the default: the string, or nothing for a null pointer
};

struct VolumeDescription {
    std::string Name; // as enumerated, with its trailing backslash if it has one
    std::vector<ExtentDescription> Extents;
    std::uint32_t OpenError = 0;
    bool Supported = true; // whether the shadow service says it can snapshot the volume
    ShadowDescription Shadow;
};

struct WriterDescription {
    std::optional<std::string> Name; // nothing: a null pointer
    std::uint32_t State = 1;
    std::uint32_t Failure = 0; // an HRESULT
};

// Values that stand in for those of the tracker's own status, in the first reply alone.
struct FirstReplyDescription {
    std::optional<std::uint32_t> Active;
    std::optional<std::uint32_t> HasPreviousEpoch;
    std::optional<std::uint64_t> PreviousEpoch;
    std::optional<std::uint64_t> CurrentEpoch;
    std::optional<std::uint32_t> OtherGap;
    std::optional<std::uint32_t> Gap;
    std::optional<std::uint64_t> TrackedExtent;
    std::optional<std::uint32_t> GranularityShift;
    std::optional<std::uint32_t> BitmapBytes;
};

struct TrackedDiskDescription {
    std::uint32_t Number = 0;
    std::uint32_t Active = 1;
    std::uint32_t HasPreviousEpoch = 0;
    std::uint64_t PreviousEpoch = 0;
    std::uint64_t CurrentEpoch = 1;
    std::uint32_t OtherGap = 0;
    std::uint32_t Gap = 0;
    std::uint64_t TrackedExtent = 0;
    std::uint32_t GranularityShift = 16;
    std::vector<std::uint8_t> Bitmap; // least significant bit first
    FirstReplyDescription FirstReply;
};

struct TrackerDescription {
    std::string File; // relative to the description's folder
    std::string Text; // the file's content, from which a rewritten file keeps what did not change
    std::uint32_t OpenError = 0;
    std::vector<TrackedDiskDescription> Disks;
};

struct TicksDescription {
    std::uint64_t Start = 0;
    std::uint64_t Step = 0;
};

struct MachineDescription {
    std::vector<DiskDescription> Disks;
    std::optional<std::vector<ExtentDescription>> SystemVolume; // its extents
    std::vector<VolumeDescription> Volumes;
    std::optional<std::vector<WriterDescription>> ShadowService; // its writers; absent: the library is not installed
    std::optional<TrackerDescription> Tracker;
    std::optional<TicksDescription> Ticks;
    std::optional<std::string> Calls; // file of the log, relative to the description's folder
    std::vector<FaultEntry> Faults;

    // Null if no disk has the number.
    const DiskDescription* FindDisk(std::uint32_t number) const;
};

// Reads machine.json and the tracker's file. Throws DescriptionError for anything that the description may not hold: a
// missing or malformed file, an unknown or repeated key, a value of the wrong type or out of range.
MachineDescription LoadMachineDescription(const DescriptionFiles& files);

} // namespace vornix::bench
