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

TEST(EpochOfImage, TakesSevenBytesLeastSignificantFirst) {
    ImageHeader header{};
    EXPECT_EQ(EpochOfImage(header), 0u);
    header.Epoch = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    EXPECT_EQ(EpochOfImage(header), 0x77665544332211u);
    header.Epoch = {0, 0, 0, 0, 0, 0, 0x80};
    EXPECT_EQ(EpochOfImage(header), 0x80000000000000u);
    header.Epoch = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(EpochOfImage(header), 0xFFFFFFFFFFFFFFu);
}

TEST(EpochOfImage, TheFieldsBesideItDoNotMatter) {
    ImageHeader header{};
    header.Encrypted = 1;
    header.Salt.fill(0xFF);
    EXPECT_EQ(EpochOfImage(header), 0u);
}

TEST(FindMissingProof, HoldsForTheLatestCommittedImage) {
    EXPECT_EQ(MissingProof(MakeTracker(0x10), 0x10), proofHolds);
    EXPECT_EQ(MissingProof(MakeTracker(0xFFFFFFFFFFFFFF), 0xFFFFFFFFFFFFFF), proofHolds);
}

TEST(FindMissingProof, NeedsATracker) {
    TrackerState tracker = MakeTracker(0x10);
    tracker.Available = false;
    EXPECT_EQ(MissingProof(tracker, 0x10), noTracker);
}

TEST(FindMissingProof, NeedsAnEpochInTheBase) {
    EXPECT_EQ(MissingProof(MakeTracker(0x10), 0), noEpoch);
    // Not even where the driver holds 0 itself.
    EXPECT_EQ(MissingProof(MakeTracker(0), 0), noEpoch);
}

TEST(FindMissingProof, NeedsAPreviousEpoch) {
    TrackerState tracker = MakeTracker(0x10);
    tracker.Status.HasPreviousEpoch = 0;
    EXPECT_EQ(MissingProof(tracker, 0x10), noPreviousEpoch);
    tracker.Status.HasPreviousEpoch = 0x80000000;
    EXPECT_EQ(MissingProof(tracker, 0x10), proofHolds);
}

TEST(FindMissingProof, ComparesAll64Bits) {
    for (uint32_t bit = 0; bit < 64; ++bit) {
        EXPECT_EQ(MissingProof(MakeTracker(0x10 ^ uint64_t{1} << bit), 0x10), notTheLatest) << bit;
    }
    // An image keeps 56 bits: what needs more never proves anything.
    EXPECT_EQ(MissingProof(MakeTracker(0x0100000000000010), 0x10), notTheLatest);
}

TEST(FindMissingProof, EitherGapBreaksIt) {
    for (const uint32_t value : {1u, 0x80000000u, 0xFFFFFFFFu}) {
        TrackerState tracker = MakeTracker(0x10);
        tracker.Status.Gap = value;
        EXPECT_EQ(MissingProof(tracker, 0x10), gapSeen);
        tracker.Status.Gap = 0;
        tracker.Status.OtherGap = value;
        EXPECT_EQ(MissingProof(tracker, 0x10), gapSeen);
    }
}

// Each combination of what can be missing gives the first of its reasons.
TEST(FindMissingProof, TellsTheFirstReasonThatApplies) {
    for (uint32_t missing = 0; missing < 64; ++missing) {
        TrackerState tracker = MakeTracker(0x10);
        uint64_t baseEpoch = 0x10;
        std::string expected = proofHolds;
        const auto apply = [&](uint32_t bit, const char* reason) {
            const bool applies = (missing >> bit & 1) != 0;
            expected = applies && expected.empty() ? reason : expected;
            return applies;
        };
        tracker.Available = !apply(0, noTracker);
        if (apply(1, noEpoch)) {
            baseEpoch = 0;
        }
        if (apply(2, noPreviousEpoch)) {
            tracker.Status.HasPreviousEpoch = 0;
        }
        if (apply(3, notTheLatest)) {
            tracker.Status.PreviousEpoch = 0xF;
        }
        if (apply(4, gapSeen)) {
            tracker.Status.Gap = 1;
        }
        if (apply(5, gapSeen)) {
            tracker.Status.OtherGap = 1;
        }
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
