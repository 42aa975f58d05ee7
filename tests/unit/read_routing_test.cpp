// The routing of reads, as pure logic: which chunk a shadow device serves, and at which of its offsets. No handle here
// is ever used as one.
#include "snapshot/read_routing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace vornix {
namespace {

constexpr uint32_t sector = 512;
constexpr uint32_t chunk = 0x400000;
constexpr uint64_t start = 0x100000;

HANDLE HandleOf(uintptr_t number) {
    return reinterpret_cast<HANDLE>(number);
}

const HANDLE liveDisk = HandleOf(1);
const HANDLE firstShadow = HandleOf(2);
const HANDLE secondShadow = HandleOf(3);

// A source as a text that a failed comparison shows: "live" or the shadow's number, and the offset.
struct Routed {
    uintptr_t Device;
    uint64_t Offset;
    bool operator==(const Routed&) const = default;
};

Routed Route(const std::vector<SnapshotRange>& ranges, uint64_t offset, uint32_t length, bool vss = true) {
    const ReadSource source = SelectReadSource(ranges, vss, offset, length, liveDisk);
    return {reinterpret_cast<uintptr_t>(source.Device), source.Offset};
}

Routed Live(uint64_t offset) {
    return {1, offset};
}

Routed First(uint64_t offset) {
    return {2, offset};
}

Routed Second(uint64_t offset) {
    return {3, offset};
}

// One range, three chunks long, that starts off every chunk boundary of the disk.
const std::vector<SnapshotRange> oneRange{{start, start + 3 * uint64_t{chunk}, firstShadow}};

TEST(ReadRouting, WithoutVssEverythingIsLiveAtItsDiskOffset) {
    EXPECT_EQ(Route(oneRange, start, chunk, false), Live(start));
    EXPECT_EQ(Route(oneRange, start + chunk, chunk, false), Live(start + chunk));
    EXPECT_EQ(Route({}, 0, chunk, false), Live(0));
}

TEST(ReadRouting, AnEmptyListIsLive) {
    EXPECT_EQ(Route({}, 0, chunk), Live(0));
    EXPECT_EQ(Route({}, 7 * uint64_t{chunk}, sector), Live(7 * uint64_t{chunk}));
}

TEST(ReadRouting, AChunkAtTheStartReadsFromByteZeroOfTheShadow) {
    EXPECT_EQ(Route(oneRange, start, chunk), First(0));
}

TEST(ReadRouting, AChunkInsideReadsAtItsDistanceFromTheStart) {
    EXPECT_EQ(Route(oneRange, start + sector, chunk), First(sector));
    EXPECT_EQ(Route(oneRange, start + chunk, chunk), First(chunk));
}

TEST(ReadRouting, AChunkOneSectorBeforeTheStartIsLive) {
    EXPECT_EQ(Route(oneRange, start - sector, chunk), Live(start - sector));
}

TEST(ReadRouting, AChunkThatEndsExactlyAtTheEndMatches) {
    EXPECT_EQ(Route(oneRange, start + 2 * uint64_t{chunk}, chunk), First(2 * uint64_t{chunk}));
}

TEST(ReadRouting, AChunkThatEndsOneSectorPastTheEndIsLive) {
    const uint64_t offset = start + 2 * uint64_t{chunk} + sector;
    EXPECT_EQ(Route(oneRange, offset, chunk), Live(offset));
    // The same place with one sector less fits.
    EXPECT_EQ(Route(oneRange, offset, chunk - sector), First(2 * uint64_t{chunk} + sector));
}

TEST(ReadRouting, AChunkThatIsTheWholeRangeMatches) {
    EXPECT_EQ(Route({{start, start + sector, firstShadow}}, start, sector), First(0));
}

TEST(ReadRouting, ARangeInsideAChunkServesNothing) {
    EXPECT_EQ(Route({{sector, chunk - sector, firstShadow}}, 0, chunk), Live(0));
    EXPECT_EQ(Route({{0, chunk - sector, firstShadow}}, 0, chunk), Live(0));
    EXPECT_EQ(Route({{sector, chunk, firstShadow}}, 0, chunk), Live(0));
}

TEST(ReadRouting, ChunksBeforeAndBehindARangeAreLive) {
    EXPECT_EQ(Route(oneRange, 0, sector), Live(0));
    EXPECT_EQ(Route(oneRange, start - chunk / 4, chunk / 4), Live(start - chunk / 4));
    const uint64_t end = start + 3 * uint64_t{chunk};
    EXPECT_EQ(Route(oneRange, end, chunk), Live(end));
}

TEST(ReadRouting, AChunkAcrossTwoAdjacentRangesIsLiveAndItsNeighboursAreNot) {
    const uint64_t border = uint64_t{chunk} + 3 * sector;
    const std::vector<SnapshotRange> ranges{{0, border, firstShadow}, {border, 3 * uint64_t{chunk}, secondShadow}};
    EXPECT_EQ(Route(ranges, 0, chunk), First(0));
    EXPECT_EQ(Route(ranges, chunk, chunk), Live(chunk));
    EXPECT_EQ(Route(ranges, 2 * uint64_t{chunk}, chunk), Second(2 * uint64_t{chunk} - border));
}

TEST(ReadRouting, ARangeBehindOthersIsFound) {
    const std::vector<SnapshotRange> ranges{
        {0, sector, firstShadow}, {sector, 2 * sector, firstShadow}, {chunk, 2 * uint64_t{chunk}, secondShadow}};
    EXPECT_EQ(Route(ranges, chunk, chunk), Second(0));
}

TEST(ReadRouting, TheFirstOfTwoMatchesServes) {
    const std::vector<SnapshotRange> ranges{{0, 4 * uint64_t{chunk}, firstShadow},
                                            {chunk, 2 * uint64_t{chunk}, secondShadow}};
    EXPECT_EQ(Route(ranges, chunk, chunk), First(chunk));
}

TEST(ReadRouting, AShortLastChunkCountsWithItsOwnLength) {
    const std::vector<SnapshotRange> ranges{{chunk, chunk + 7 * sector, firstShadow}};
    EXPECT_EQ(Route(ranges, chunk, 7 * sector), First(0));
    EXPECT_EQ(Route(ranges, chunk, 8 * sector), Live(chunk));
    EXPECT_EQ(Route(ranges, chunk, chunk), Live(chunk));
}

TEST(ReadRouting, OffsetsBeyond32BitsAreKeptWhole) {
    const uint64_t distant = uint64_t{5} << 40;
    const std::vector<SnapshotRange> ranges{{sector, distant + chunk, firstShadow}};
    EXPECT_EQ(Route(ranges, distant, chunk), First(distant - sector));
    EXPECT_EQ(Route(ranges, distant + sector, chunk), Live(distant + sector));
    // The low halves alone would match here.
    EXPECT_EQ(Route({{0, chunk, firstShadow}}, uint64_t{1} << 32, chunk), Live(uint64_t{1} << 32));
}

TEST(ReadRouting, ALengthOf64MebibytesIsNoLessWhole) {
    constexpr uint32_t largest = 0x4000000;
    EXPECT_EQ(Route({{0, largest, firstShadow}}, 0, largest), First(0));
    EXPECT_EQ(Route({{0, largest - sector, firstShadow}}, 0, largest), Live(0));
}

} // namespace
} // namespace vornix
