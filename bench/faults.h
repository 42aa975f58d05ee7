// The faults of a described machine: which call is taken by which entry, and what then happens to it. The whole policy
// stands in this unit; the calls themselves only carry out the effect that they are handed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vornix::bench {

// Bytes that another program writes to a disk just before a call.
struct PokeEffect {
    std::uint32_t Disk = 0;
    std::uint64_t Offset = 0;
    std::vector<std::uint8_t> Bytes;
};

// What happens to a call that an entry takes. A default one is no fault: the call goes on as usual.
struct FaultEffect {
    std::optional<std::uint32_t> Error;       // the call fails with this last error
    std::optional<std::uint32_t> Transferred; // bytes that a ReadFile or WriteFile transfers, whatever it was asked for
    std::optional<std::uint32_t> Status;      // the call returns this NTSTATUS or HRESULT
    std::optional<std::uint32_t> AsyncStatus; // what IVssAsync::QueryStatus reports
    bool NullAsync = false;                   // an asynchronous method succeeds and gives no object
    bool Null = false;                        // the call gives a null pointer
    std::optional<std::uint64_t> Flip;        // offset of the byte that is inverted in what was read
    std::optional<PokeEffect> Poke;           // written before the call
    std::optional<std::string> Touch;         // host path of an empty file that is made before the call
    bool Kill = false;                        // the process ends at the call, after Transferred bytes if given
};

// An entry of the description's list.
struct FaultEntry {
    std::string Call;
    std::optional<std::string> Path; // a substring of the call's path; absent: no narrowing
    std::uint64_t Skip = 0;          // matching calls that pass first
    std::uint64_t Times = 1;         // how many are then taken
    FaultEffect Effect;
};

// Which effects a call can carry out. Poke, touch and kill fit every call.
struct CallTraits {
    std::string_view Name; // as in the log and in an entry
    bool LastError = false;
    bool Reads = false;
    bool Transfers = false;
    bool Status = false;
    bool QueriesAsync = false;
    bool GivesAsync = false;
    bool GivesPointer = false;
};

// The traits of a call by its name in the log; null for a name that no call has.
const CallTraits* FindCallTraits(std::string_view name);

// Why an entry's effect does not fit its call, or nothing if it does. The entry's call must be a known one.
std::optional<std::string> FindMisfit(const FaultEntry& entry);

// Hands each call of a run the effect that is due to it.
class FaultPolicy {
public:
    explicit FaultPolicy(std::vector<FaultEntry> entries);

    // To be asked once for each call, in the order of the calls. `paths` are the paths that the call has, of its handle
    // or among its arguments, in UTF-8; a call without any is narrowed by none. Entries are looked at in their order.
    // One that matches lets the call pass while it still has calls to skip, takes it while it has not yet taken all of
    // its times, and is spent after that. The first that takes the call wins, and the later ones do not see the call at
    // all. Gives null where no entry takes the call; else an effect that lives as long as the policy.
    const FaultEffect* Take(std::string_view call, std::initializer_list<std::string_view> paths);

private:
    struct Progress {
        FaultEntry Entry;
        std::uint64_t Skipped = 0;
        std::uint64_t Taken = 0;
    };

    std::vector<Progress> entries_;
};

} // namespace vornix::bench
