// The routing of reads, as pure logic: which chunk a shadow device serves, and at which of its offsets. No handle here
// is ever used as one.
#include "snapshot/read_routing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace vornix {
namespace {

constexpr uint32_t sector = 512;
constexpr uint64_t chunk = 0x400000;
constexpr uint64_t start = 0x100000;
constexpr uint64_t end = start + 3 * chunk;
constexpr uint64_t largest = 0x4000000;
constexpr uint64_t distant = uint64_t{5} << 40;
constexpr uint64_t border = chunk + 3 * sector;

// What stands for a handle.
enum Device : uintptr_t {
    live = 1,
    first,
    second
};

SnapshotRange Range(uint64_t from, uint64_t to, Device shadow) {
    return {from, to, reinterpret_cast<HANDLE>(shadow)};
}

// Three chunks long, and off every chunk boundary of the disk; and two that meet.
const SnapshotRange range = Range(start, end, first);
const std::vector<SnapshotRange> twoRanges{Range(0, border, first), Range(border, 3 * chunk, second)};

struct Case {
    const char* What;
    std::vector<SnapshotRange> Ranges;
    uint64_t Offset;
    uint64_t Length;
    Device Serves; // the live disk at the disk's own offset
    uint64_t At = 0;
};

const std::vector<Case> cases{
    {"no range", {}, 7 * chunk, sector, live},
    {"at the start: byte zero of the shadow", {range}, start, chunk, first, 0},
    {"inside: at its distance from the start", {range}, start + sector, chunk, first, sector},
    {"one sector before the start", {range}, start - sector, chunk, live},
    {"to the very end", {range}, start + 2 * chunk, chunk, first, 2 * chunk},
    {"one sector past the end", {range}, start + 2 * chunk + sector, chunk, live},
    {"the same with one sector less", {range}, start + 2 * chunk + sector, chunk - sector, first, 2 * chunk + sector},
    {"the whole range", {Range(start, start + sector, first)}, start, sector, first, 0},
    {"around the range", {Range(sector, chunk - sector, first)}, 0, chunk, live},
    {"around the range from its start", {Range(0, chunk - sector, first)}, 0, chunk, live},
    {"around the range to its end", {Range(sector, chunk, first)}, 0, chunk, live},
    {"far before the range", {range}, 0, sector, live},
    {"right before the range", {range}, start - chunk / 4, chunk / 4, live},
    {"right behind the range", {range}, end, chunk, live},
    {"across two ranges", twoRanges, chunk, chunk, live},
    {"before their border", twoRanges, 0, chunk, first, 0},
    {"behind their border", twoRanges, 2 * chunk, chunk, second, 2 * chunk - border},
    {"in the last of three",
     {range, Range(0, sector, first), Range(chunk, 8 * chunk, second)},
     6 * chunk,
     chunk,
     second,
     5 * chunk},
    {"in two at once", {Range(0, 4 * chunk, first), Range(chunk, 2 * chunk, second)}, chunk, chunk, first, chunk},
    {"a short last chunk", {Range(chunk, chunk + 7 * sector, first)}, chunk, 7 * sector, first, 0},
    {"a sector more than that", {Range(chunk, chunk + 7 * sector, first)}, chunk, 8 * sector, live},
    {"beyond 32 bits", {Range(sector, distant + chunk, first)}, distant, chunk, first, distant - sector},
    {"past an end beyond 32 bits", {Range(sector, distant + chunk, first)}, distant + sector, chunk, live},
    {"inside by the low halves alone", {Range(0, chunk, first)}, uint64_t{1} << 32, chunk, live},
    {"64 MiB", {Range(0, largest, first)}, 0, largest, first, 0},
    {"64 MiB in less", {Range(0, largest - sector, first)}, 0, largest, live},
};

TEST(ReadRouting, AChunkComesWholeFromTheFirstRangeThatHoldsItOrElseFromTheLiveDisk) {
    for (const Case& row : cases) {
        SCOPED_TRACE(row.What);
        const auto expect = [&](bool vss, Device device, uint64_t offset) {
            const ReadSource source = SelectReadSource(row.Ranges, vss, row.Offset, static_cast<uint32_t>(row.Length),
                                                       reinterpret_cast<HANDLE>(live));
            EXPECT_EQ(reinterpret_cast<uintptr_t>(source.Device), device);
            EXPECT_EQ(source.Offset, offset);
        };
        expect(true, row.Serves, row.Serves == live ? row.Offset : row.At);
        expect(false, live, row.Offset);
    }
}

} // namespace
} // namespace vornix
