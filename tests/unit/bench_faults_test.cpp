// The fault policy: which entry takes which call, and which effects fit which calls.
#include "bench/faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

using namespace vornix::bench;

namespace {

FaultEntry FailWithError(std::string call, std::uint32_t error, std::uint64_t skip = 0, std::uint64_t times = 1) {
    FaultEntry entry;
    entry.Call = std::move(call);
    entry.Skip = skip;
    entry.Times = times;
    entry.Effect.Error = error;
    return entry;
}

// The error that is due to a call; 0 where no entry takes it.
std::uint32_t TakeError(FaultPolicy& policy, std::string_view call,
                        std::initializer_list<std::string_view> paths = {}) {
    const FaultEffect* const effect = policy.Take(call, paths);
    return effect == nullptr ? 0 : effect->Error.value_or(0);
}

TEST(FaultPolicy, EachCallGoesToTheFirstEntryThatAppliesAndIsSeenByThoseThatSkipIt) {
    struct Case {
        std::vector<FaultEntry> Entries;
        std::vector<std::uint32_t> Errors; // of one ReadFile after the other
    };
    for (const Case& row : std::vector<Case>{
             {{}, {0}},
             {{FailWithError("WriteFile", 23)}, {0}},
             {{FailWithError("ReadFile", 23)}, {23, 0}},
             {{FailWithError("ReadFile", 23, 2, 2)}, {0, 0, 23, 23, 0, 0}},
             {{FailWithError("ReadFile", 23, 0, 0)}, {0}},
             {{FailWithError("ReadFile", 1), FailWithError("ReadFile", 2), FailWithError("ReadFile", 3)}, {1, 2, 3, 0}},
             {{FailWithError("ReadFile", 1), FailWithError("ReadFile", 2, 1)}, {1, 0, 2}},
             {{FailWithError("ReadFile", 1, 1), FailWithError("ReadFile", 2)}, {2, 1}},
         }) {
        FaultPolicy policy(row.Entries);
        std::vector<std::uint32_t> errors;
        while (errors.size() < row.Errors.size()) {
            errors.push_back(TakeError(policy, "ReadFile", {"a"}));
        }
        EXPECT_EQ(errors, row.Errors);
    }
}

TEST(FaultPolicy, APathNarrowsAndOnlyMatchingCallsCount) {
    FaultEntry entry = FailWithError("ReadFile", 23, 1);
    entry.Path = "Drive1";
    FaultPolicy policy({entry});
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive2"}), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive1"}), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive2"}), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive1"}), 23u);
}

TEST(FaultPolicy, AnyOfACallsPathsMatches) {
    FaultEntry entry = FailWithError("MoveFileExW", 5, 0, 3);
    entry.Path = "final";
    FaultPolicy policy({entry});
    EXPECT_EQ(TakeError(policy, "MoveFileExW", {"a.partial", "a"}), 0u);
    EXPECT_EQ(TakeError(policy, "MoveFileExW", {"a.partial", "final"}), 5u);
    EXPECT_EQ(TakeError(policy, "MoveFileExW", {"final", "a"}), 5u);
}

TEST(FaultPolicy, APathDoesNotNarrowACallThatHasNone) {
    FaultEntry entry = FailWithError("FindFirstVolumeW", 5);
    entry.Path = "anything";
    FaultPolicy policy({entry});
    EXPECT_EQ(TakeError(policy, "FindFirstVolumeW"), 5u);
}

TEST(FaultEffects, EachFitsItsCalls) {
    struct Case {
        void (*Set)(FaultEffect&);
        std::vector<const char*> Fitting;
        std::vector<const char*> Misfits;
    };
    for (const auto& [set, fitting, misfits] : std::vector<Case>{
             {[](FaultEffect&) {}, {}, {"ReadFile"}},
             {[](FaultEffect& effect) { effect.Error = 1; }, {"CloseHandle"}, {"BCryptHashData", "GetTickCount64"}},
             {[](FaultEffect& effect) { effect.Transferred = 1; }, {"ReadFile", "WriteFile"}, {"DeviceIoControl"}},
             {[](FaultEffect& effect) { effect.Status = 1; },
              {"BCryptHashData", "CreateVssBackupComponents"},
              {"CreateFileW", "IVssAsync::Release"}},
             {[](FaultEffect& effect) { effect.AsyncStatus = 1; }, {"IVssAsync::QueryStatus"}, {"IVssAsync::Wait"}},
             {[](FaultEffect& effect) { effect.NullAsync = true; },
              {"IVssBackupComponents::DoSnapshotSet"},
              {"IVssBackupComponents::SetContext"}},
             {[](FaultEffect& effect) { effect.Null = true; }, {"_fullpath", "_aligned_malloc"}, {"CreateFileW"}},
             {[](FaultEffect& effect) { effect.Flip = 0; }, {"ReadFile"}, {"WriteFile"}},
             {[](FaultEffect& effect) { effect.Touch = "file"; }, {"GetTickCount64", "exit"}, {}},
             {[](FaultEffect& effect) { effect.Kill = true; }, {"CoUninitialize", "ReadFile"}, {}},
         }) {
        const auto isMisfit = [&](const char* call) {
            FaultEntry entry;
            entry.Call = call;
            set(entry.Effect);
            return FindMisfit(entry).has_value();
        };
        EXPECT_TRUE(std::none_of(fitting.begin(), fitting.end(), isMisfit)) << testing::PrintToString(fitting);
        EXPECT_TRUE(std::all_of(misfits.begin(), misfits.end(), isMisfit)) << testing::PrintToString(misfits);
    }
}

TEST(FaultEffects, ATransferThatDiesMayBeHalfDoneButDoesNotFailAsWell) {
    FaultEntry entry;
    entry.Call = "ReadFile";
    entry.Effect.Kill = true;
    entry.Effect.Transferred = 512;
    EXPECT_FALSE(FindMisfit(entry));
    entry.Effect.Error = 23;
    EXPECT_TRUE(FindMisfit(entry));
}

// The calls by their names in the log; two of the list bear the suffix of the library's exports there.
TEST(FaultEffects, EverySwappedCallOfTheListIsKnown) {
    std::vector<std::string> names;
#define VORNIX_NAME_SHARED(name)
#define VORNIX_NAME_SWAPPED(name) names.push_back(#name);
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments) VORNIX_NAME_##kind(name)
#include "platform/calls.def"
#undef VORNIX_CALL
#undef VORNIX_NAME_SWAPPED
#undef VORNIX_NAME_SHARED
    ASSERT_GT(names.size(), 30u);
    for (std::string name : names) {
        constexpr std::string_view suffix = "Internal";
        if (name.ends_with(suffix)) {
            name.resize(name.size() - suffix.size());
        }
        EXPECT_NE(FindCallTraits(name), nullptr) << name;
    }
    EXPECT_EQ(FindCallTraits("GetLastError"), nullptr);
}

} // namespace
