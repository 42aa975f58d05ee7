// The Volume Shadow Copy service of a described machine: the objects that a requester talks to, the snapshots that
// stand, and the shadow devices on which their frozen bytes are read. It answers only calls that come in an order which
// the published interface allows. The factory and the frees are in bench_com.cpp.
#pragma once

#include "bench_calls.h"
#include "bench_disks.h"
#include "machine_description.h"
#include "open_objects.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vornix::bench {

// The snapshot of one volume in a set.
struct Snapshot {
    VSS_ID Id = {};
    VSS_ID SetId = {};
    const VolumeDescription* Volume = nullptr;
    std::optional<std::string> DeviceObject; // as its properties give it; nothing: a null pointer
    std::uint64_t Length = 0;                // of its device, in bytes
    std::uint32_t SectorSize = 512;          // of the disk that the volume lies on
    // Where the frozen bytes are; all of it null before the set is made and after it is deleted.
    std::unique_ptr<HostFile> File;
    std::unique_ptr<FrozenExtent> Extent;
    bool Standing = false;
};

class ShadowService {
public:
    // The disks must outlive the service. `folder` is that of the description.
    ShadowService(const MachineDescription& description, std::map<std::uint32_t, std::unique_ptr<Disk>>& disks,
                  std::string folder);
    ShadowService(const ShadowService&) = delete;
    ShadowService& operator=(const ShadowService&) = delete;

    // The standing snapshot whose device has this path; null if there is none.
    std::shared_ptr<Snapshot> FindByDevice(const std::string& path) const;

    // A new session of a requester, owned by the caller through its Release.
    IVssBackupComponents* CreateComponents();

private:
    friend class BackupComponents;

    VSS_ID MakeId();

    // Enters a volume, which must outlive the service, in a set that is being put together.
    std::shared_ptr<Snapshot> Add(const VolumeDescription& volume, const VSS_ID& setId);

    // Freezes the volume's bytes and makes the shadow device appear.
    void Freeze(const std::shared_ptr<Snapshot>& snapshot);

    // Makes the device and the frozen bytes disappear.
    void Forget(const std::shared_ptr<Snapshot>& snapshot);

    const MachineDescription& description_;
    std::map<std::uint32_t, std::unique_ptr<Disk>>& disks_;
    const std::string folder_;
    std::vector<std::shared_ptr<Snapshot>> standing_;
    std::uint32_t ids_ = 0;
    std::uint32_t added_ = 0;
};

// Answers an open of a standing snapshot's device.
OpenOutcome OpenShadowDevice(const std::shared_ptr<Snapshot>& snapshot, const OpenRequest& request);

} // namespace vornix::bench
