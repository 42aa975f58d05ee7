// The fault policy: which entry takes which call, and which effects fit which calls.
#include "bench/faults.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

using namespace vornix::bench;

namespace {

FaultEntry FailWithError(std::string call, std::uint32_t error) {
    FaultEntry entry;
    entry.Call = std::move(call);
    entry.Effect.Error = error;
    return entry;
}

// The error that is due to a call; 0 where no entry takes it.
std::uint32_t TakeError(FaultPolicy& policy, std::string_view call,
                        std::initializer_list<std::string_view> paths = {}) {
    const FaultEffect* const effect = policy.Take(call, paths);
    return effect == nullptr ? 0 : effect->Error.value_or(0);
}

TEST(FaultPolicy, WithoutEntriesNothingIsTaken) {
    FaultPolicy policy({});
    EXPECT_EQ(policy.Take("ReadFile", {"a"}), nullptr);
}

TEST(FaultPolicy, AnEntryTakesOneCallOfItsName) {
    FaultPolicy policy({FailWithError("ReadFile", 23)});
    EXPECT_EQ(TakeError(policy, "WriteFile"), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 23u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 0u);
}

TEST(FaultPolicy, SkippedCallsPassAndTimesAreTaken) {
    FaultEntry entry = FailWithError("ReadFile", 23);
    entry.Skip = 2;
    entry.Times = 2;
    FaultPolicy policy({entry});
    std::vector<std::uint32_t> errors;
    for (int call = 0; call < 6; ++call) {
        errors.push_back(TakeError(policy, "ReadFile"));
    }
    EXPECT_EQ(errors, (std::vector<std::uint32_t>{0, 0, 23, 23, 0, 0}));
}

TEST(FaultPolicy, TimesOfNoneTakesNothing) {
    FaultEntry entry = FailWithError("ReadFile", 23);
    entry.Times = 0;
    FaultPolicy policy({entry});
    EXPECT_EQ(TakeError(policy, "ReadFile"), 0u);
}

TEST(FaultPolicy, APathNarrowsAndOnlyMatchingCallsCount) {
    FaultEntry entry = FailWithError("ReadFile", 23);
    entry.Path = "Drive1";
    entry.Skip = 1;
    FaultPolicy policy({entry});
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive2"}), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive1"}), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive2"}), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile", {"\\\\.\\PhysicalDrive1"}), 23u);
}

TEST(FaultPolicy, AnyOfACallsPathsMatches) {
    FaultEntry entry = FailWithError("MoveFileExW", 5);
    entry.Path = "final";
    entry.Times = 3;
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

TEST(FaultPolicy, TheFirstEntryThatAppliesWins) {
    FaultPolicy policy({FailWithError("ReadFile", 1), FailWithError("ReadFile", 2), FailWithError("ReadFile", 3)});
    EXPECT_EQ(TakeError(policy, "ReadFile"), 1u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 2u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 3u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 0u);
}

TEST(FaultPolicy, ACallThatIsTakenCountsForNoLaterEntry) {
    FaultEntry touching;
    touching.Call = "ReadFile";
    touching.Effect.Touch = "file";
    FaultEntry failing = FailWithError("ReadFile", 23);
    failing.Skip = 1;
    FaultPolicy policy({touching, failing});
    const FaultEffect* const first = policy.Take("ReadFile", {});
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->Touch, "file");
    EXPECT_EQ(TakeError(policy, "ReadFile"), 0u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 23u);
}

TEST(FaultPolicy, ACallThatIsSkippedIsSeenByLaterEntries) {
    FaultEntry skipping = FailWithError("ReadFile", 1);
    skipping.Skip = 1;
    FaultPolicy policy({skipping, FailWithError("ReadFile", 2)});
    EXPECT_EQ(TakeError(policy, "ReadFile"), 2u);
    EXPECT_EQ(TakeError(policy, "ReadFile"), 1u);
}

TEST(FaultEffects, EachFitsItsCalls) {
    const auto misfit = [](const char* call, void (*set)(FaultEffect&)) {
        FaultEntry entry;
        entry.Call = call;
        set(entry.Effect);
        return FindMisfit(entry).has_value();
    };
    const auto error = [](FaultEffect& effect) { effect.Error = 1; };
    EXPECT_FALSE(misfit("CloseHandle", error));
    EXPECT_TRUE(misfit("BCryptHashData", error));
    EXPECT_TRUE(misfit("GetTickCount64", error));
    const auto transferred = [](FaultEffect& effect) { effect.Transferred = 1; };
    EXPECT_FALSE(misfit("ReadFile", transferred));
    EXPECT_FALSE(misfit("WriteFile", transferred));
    EXPECT_TRUE(misfit("DeviceIoControl", transferred));
    const auto status = [](FaultEffect& effect) { effect.Status = 1; };
    EXPECT_FALSE(misfit("BCryptHashData", status));
    EXPECT_FALSE(misfit("CreateVssBackupComponents", status));
    EXPECT_TRUE(misfit("CreateFileW", status));
    EXPECT_TRUE(misfit("IVssAsync::Release", status));
    const auto asyncStatus = [](FaultEffect& effect) { effect.AsyncStatus = 1; };
    EXPECT_FALSE(misfit("IVssAsync::QueryStatus", asyncStatus));
    EXPECT_TRUE(misfit("IVssAsync::Wait", asyncStatus));
    const auto nullAsync = [](FaultEffect& effect) { effect.NullAsync = true; };
    EXPECT_FALSE(misfit("IVssBackupComponents::DoSnapshotSet", nullAsync));
    EXPECT_TRUE(misfit("IVssBackupComponents::SetContext", nullAsync));
    const auto null = [](FaultEffect& effect) { effect.Null = true; };
    EXPECT_FALSE(misfit("_fullpath", null));
    EXPECT_FALSE(misfit("_aligned_malloc", null));
    EXPECT_TRUE(misfit("CreateFileW", null));
    const auto flip = [](FaultEffect& effect) { effect.Flip = 0; };
    EXPECT_FALSE(misfit("ReadFile", flip));
    EXPECT_TRUE(misfit("WriteFile", flip));
    const auto touch = [](FaultEffect& effect) { effect.Touch = "file"; };
    EXPECT_FALSE(misfit("GetTickCount64", touch));
    EXPECT_FALSE(misfit("exit", touch));
    const auto kill = [](FaultEffect& effect) { effect.Kill = true; };
    EXPECT_FALSE(misfit("CoUninitialize", kill));
}

TEST(FaultEffects, WhatContradictsItselfOrDoesNothingIsAMisfit) {
    FaultEntry entry;
    entry.Call = "ReadFile";
    EXPECT_TRUE(FindMisfit(entry));
    entry.Effect.Kill = true;
    EXPECT_FALSE(FindMisfit(entry));
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
