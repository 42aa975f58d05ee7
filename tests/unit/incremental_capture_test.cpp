// Whether the tracker proves what changed since a base: the epoch of an image, and the reasons in their order.
#include "commands/incremental_capture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace vornix {
namespace {

constexpr const char* noTracker = "no change tracker for this disk";
constexpr const char* noEpoch = "base image has no epoch (captured without the tracker)";
constexpr const char* noPreviousEpoch = "driver holds no previous epoch (reboot/reload since the base image)";
constexpr const char* notTheLatest = "base image is not the most recent committed image";
constexpr const char* gapSeen = "tracker saw an untracked write (gap) since the base image";
constexpr const char* proofHolds = "";

// An empty text where the proof holds.
std::string MissingProof(const TrackerState& tracker, uint64_t baseEpoch) {
    const char* reason = FindMissingProof(tracker, baseEpoch);
    return reason == nullptr ? proofHolds : reason;
}

TrackerState MakeTracker(uint64_t previousEpoch) {
    TrackerState tracker;
    tracker.Available = true;
    tracker.Status.Active = 1;
    tracker.Status.TrackedExtent = 1;
    tracker.Status.HasPreviousEpoch = 1;
    tracker.Status.PreviousEpoch = previousEpoch;
    tracker.Status.CurrentEpoch = previousEpoch + 1;
    return tracker;
}

TEST(EpochOfImage, TakesSevenBytesLeastSignificantFirstAndNoneBesideThem) {
    ImageHeader header{};
    header.Encrypted = 1;
    header.Salt.fill(0xFF);
    EXPECT_EQ(EpochOfImage(header), 0u);
    header.Epoch = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    EXPECT_EQ(EpochOfImage(header), 0x77665544332211u);
    header.Epoch = {0, 0, 0, 0, 0, 0, 0x80};
    EXPECT_EQ(EpochOfImage(header), 0x80000000000000u);
    header.Epoch = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(EpochOfImage(header), 0xFFFFFFFFFFFFFFu);
}

TEST(FindMissingProof, NeedsAnEpochInTheBaseEvenWhereTheDriverHolds0Itself) {
    EXPECT_EQ(MissingProof(MakeTracker(0), 0), noEpoch);
}

TEST(FindMissingProof, AnyNumberButZeroSaysThatThereIsAPreviousEpoch) {
    TrackerState tracker = MakeTracker(0xFFFFFFFFFFFFFF);
    tracker.Status.HasPreviousEpoch = 0x80000000;
    EXPECT_EQ(MissingProof(tracker, 0xFFFFFFFFFFFFFF), proofHolds);
}

// An image keeps 56 of them: an epoch that needs more never proves anything.
TEST(FindMissingProof, ComparesAll64Bits) {
    for (uint32_t bit = 0; bit < 64; ++bit) {
        EXPECT_EQ(MissingProof(MakeTracker(0x10 ^ uint64_t{1} << bit), 0x10), notTheLatest) << bit;
    }
}

TEST(FindMissingProof, GivesOfEachCombinationTheFirstReasonThatApplies) {
    constexpr uint32_t gap = 0x80000000; // not 0, and that is all
    for (uint32_t missing = 0; missing < 64; ++missing) {
        TrackerState tracker = MakeTracker(0x10);
        std::string expected = proofHolds;
        const auto apply = [&](uint32_t bit, const char* reason) {
            const bool applies = (missing >> bit & 1) != 0;
            expected = applies && expected.empty() ? reason : expected;
            return applies;
        };
        tracker.Available = !apply(0, noTracker);
        const uint64_t baseEpoch = apply(1, noEpoch) ? 0 : 0x10;
        tracker.Status.HasPreviousEpoch = apply(2, noPreviousEpoch) ? 0 : 1;
        tracker.Status.PreviousEpoch = apply(3, notTheLatest) ? 0xF : 0x10;
        tracker.Status.Gap = apply(4, gapSeen) ? gap : 0;
        tracker.Status.OtherGap = apply(5, gapSeen) ? gap : 0;
        EXPECT_EQ(MissingProof(tracker, baseEpoch), expected) << missing;
    }
}

TEST(FindMissingProof, DoesNotLookAtTheOtherFields) {
    TrackerState tracker = MakeTracker(0x10);
    tracker.Status.Active = 0;
    tracker.Status.TrackedExtent = 0;
    tracker.Status.CurrentEpoch = 0;
    tracker.Status.GranularityShift = 99;
    tracker.Status.BitmapBytes = 5;
    EXPECT_EQ(MissingProof(tracker, 0x10), proofHolds);
}

} // namespace
} // namespace vornix
