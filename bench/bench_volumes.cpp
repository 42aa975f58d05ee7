// Enumerates the volumes of the described machine and answers for their extents. See bench_volumes.h.
#include "bench_volumes.h"

#include "bench_calls.h"
#include "call_record.h"
#include "machine.h"
#include "real_calls.h"
#include "text.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace vornix::bench {

namespace {

// Values apart from those of the handles that CreateFileW gives.
constexpr std::uintptr_t firstSearch = 0x7A000000;
constexpr std::uintptr_t searchStep = 4;

class VolumeObject final : public OpenObject {
public:
    explicit VolumeObject(std::vector<ExtentDescription> extents) : extents_(std::move(extents)) {}

    Outcome Control(const ControlRequest& request, DWORD& returned) override {
        if (request.Code != IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS) {
            return FailWith(ERROR_INVALID_FUNCTION);
        }
        if (request.OutLength < sizeof(VOLUME_DISK_EXTENTS)) {
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        constexpr std::size_t headLength = offsetof(VOLUME_DISK_EXTENTS, Extents);
        const std::size_t room = (request.OutLength - headLength) / sizeof(DISK_EXTENT);
        if (extents_.size() > room) {
            return FailWith(ERROR_MORE_DATA);
        }
        auto* const out = static_cast<unsigned char*>(request.Out);
        VOLUME_DISK_EXTENTS head = {};
        head.NumberOfDiskExtents = static_cast<DWORD>(extents_.size());
        std::memcpy(out, &head, headLength);
        for (std::size_t index = 0; index < extents_.size(); ++index) {
            DISK_EXTENT extent = {};
            extent.DiskNumber = extents_[index].Disk;
            extent.StartingOffset.QuadPart = static_cast<LONGLONG>(extents_[index].Start);
            extent.ExtentLength.QuadPart = static_cast<LONGLONG>(extents_[index].Length);
            std::memcpy(out + headLength + index * sizeof extent, &extent, sizeof extent);
        }
        returned = static_cast<DWORD>(headLength + extents_.size() * sizeof(DISK_EXTENT));
        return {};
    }

private:
    const std::vector<ExtentDescription> extents_;
};

// Null for a handle that no FindFirstVolumeW of this machine gave, and for one that was closed.
VolumeSearch* FindSearch(Machine& machine, HANDLE search) {
    const auto value = reinterpret_cast<std::uintptr_t>(search);
    if (value < firstSearch || (value - firstSearch) % searchStep != 0) {
        return nullptr;
    }
    const std::uintptr_t index = (value - firstSearch) / searchStep;
    if (index >= machine.VolumeSearches.size() || machine.VolumeSearches[index].Closed) {
        return nullptr;
    }
    return &machine.VolumeSearches[index];
}

// Names the next volume of a search into the caller's buffer.
Outcome NameNextVolume(const Machine& machine, VolumeSearch& search, LPWSTR name, DWORD length) {
    const std::vector<VolumeDescription>& volumes = machine.Description.Volumes;
    if (search.Next >= volumes.size()) {
        return FailWith(ERROR_NO_MORE_FILES);
    }
    const std::wstring wide = WideFromUtf8(volumes[search.Next].Name);
    if (wide.size() >= length) {
        return FailWith(ERROR_FILENAME_EXCED_RANGE);
    }
    std::copy(wide.c_str(), wide.c_str() + wide.size() + 1, name);
    ++search.Next;
    return {};
}

} // namespace

OpenOutcome OpenVolume(const std::vector<ExtentDescription>& extents) {
    return {.Object = std::make_unique<VolumeObject>(extents), .Result = {}};
}

const VolumeDescription* FindVolumeByDevice(const MachineDescription& description, const std::string& path) {
    for (const VolumeDescription& volume : description.Volumes) {
        std::string device = volume.Name;
        if (device.ends_with('\\')) {
            device.pop_back();
        }
        if (device == path) {
            return &volume;
        }
    }
    return nullptr;
}

const VolumeDescription* FindVolumeByName(const MachineDescription& description, const std::string& name) {
    for (const VolumeDescription& volume : description.Volumes) {
        if (volume.Name == name) {
            return &volume;
        }
    }
    return nullptr;
}

} // namespace vornix::bench

using namespace vornix::bench;

HANDLE WINAPI BenchFindFirstVolumeW(LPWSTR name, DWORD length) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealFindFirstVolumeW(name, length);
    }
    CallRecord call("FindFirstVolumeW");
    VolumeSearch search;
    const Outcome outcome =
        call.Effect().Error ? FailWith(*call.Effect().Error) : NameNextVolume(*machine, search, name, length);
    if (!outcome.Ok) {
        call.FinishWithOutcome(outcome);
        return INVALID_HANDLE_VALUE;
    }
    call.Add("name", Utf8FromWide(name));
    machine->VolumeSearches.push_back(search);
    call.FinishWithOutcome(outcome);
    return reinterpret_cast<HANDLE>(firstSearch + searchStep * (machine->VolumeSearches.size() - 1));
}

BOOL WINAPI BenchFindNextVolumeW(HANDLE search, LPWSTR name, DWORD length) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealFindNextVolumeW(search, name, length);
    }
    CallRecord call("FindNextVolumeW");
    VolumeSearch* const standing = FindSearch(*machine, search);
    Outcome outcome;
    if (call.Effect().Error) {
        outcome = FailWith(*call.Effect().Error);
    } else if (standing == nullptr) {
        outcome = FailWith(ERROR_INVALID_HANDLE);
    } else {
        outcome = NameNextVolume(*machine, *standing, name, length);
    }
    if (outcome.Ok) {
        call.Add("name", Utf8FromWide(name));
    }
    return call.FinishWithOutcome(outcome);
}

BOOL WINAPI BenchFindVolumeClose(HANDLE search) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealFindVolumeClose(search);
    }
    CallRecord call("FindVolumeClose");
    VolumeSearch* const standing = FindSearch(*machine, search);
    if (call.Effect().Error) {
        return call.FinishWithOutcome(FailWith(*call.Effect().Error));
    }
    if (standing == nullptr) {
        return call.FinishWithOutcome(FailWith(ERROR_INVALID_HANDLE));
    }
    standing->Closed = true;
    return call.FinishWithOutcome({});
}
