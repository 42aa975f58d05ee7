// The described machine of this process: every part of it that lives through a run, in one place.
#pragma once

#include "bench_disks.h"
#include "bench_tracker.h"
#include "bench_volumes.h"
#include "call_log.h"
#include "faults.h"
#include "machine_description.h"
#include "open_objects.h"
#include "shadow_service.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vornix::bench {

struct Machine {
    // `folder` is that of the description, `log` the open file of the log, or null. Throws nothing but a lack of
    // memory.
    Machine(MachineDescription description, const std::string& folder, std::unique_ptr<HostFile> log);
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Null if no disk has the number.
    Disk* FindDisk(std::uint32_t number);

    const MachineDescription Description;
    CallLog Log;
    FaultPolicy Faults;
    HandleTable Handles;
    std::unique_ptr<Tracker> ChangeTracker; // null where the machine has none
    std::map<std::uint32_t, std::unique_ptr<Disk>> Disks;
    std::unique_ptr<ShadowService> Shadows; // null where the library is not installed
    std::vector<VolumeSearch> VolumeSearches;
    std::optional<TicksDescription> Ticks; // what the clock says next
    std::uint32_t ComUsers = 0;            // standing CoInitializeEx
    bool ComRunsAnyway = false;            // a fault let CoInitializeEx say that COM had been started already
    bool ComSecured = false;               // CoInitializeSecurity was called
};

// Null until a machine is installed: calls of the runtime's own start go on to the host.
Machine* CurrentMachine();

// Puts a machine, or null, in the place of the one before, which is taken down with all its handles. The last one stays
// until the process ends, since exit routines of the program still call it.
void InstallMachine(std::unique_ptr<Machine> machine);

// Reads the description in `folder` and builds the machine. Throws DescriptionError.
std::unique_ptr<Machine> LoadMachine(const std::string& folder);

} // namespace vornix::bench
