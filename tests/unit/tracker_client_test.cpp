// The range test of the tracker client, which is pure arithmetic on the bitmap, and an open without a driver. The
// requests themselves need a driver, and so a described machine.
#include "tracker/tracker_client.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace vornix {
namespace {

TrackerState MakeState(uint32_t granularityShift, std::vector<uint8_t> bitmap) {
    TrackerState state;
    state.Available = true;
    state.Status.GranularityShift = granularityShift;
    state.Bitmap = std::move(bitmap);
    return state;
}

std::vector<uint8_t> BitmapWith(size_t bytes, size_t bit) {
    std::vector<uint8_t> bitmap(bytes);
    bitmap[bit / 8] = static_cast<uint8_t>(1u << bit % 8);
    return bitmap;
}

TEST(TrackerRangeChanged, AChunkLooksAtAllItsBitsAndAtNoOther) {
    // 64 KiB a bit: the chunk at 0xC00000 is bits 192 to 255, all of the bitmap's bytes 24 to 31.
    for (size_t bit = 0; bit < 400; ++bit) {
        const TrackerState state = MakeState(16, BitmapWith(50, bit));
        EXPECT_EQ(TrackerRangeChanged(state, 0xC00000, 0x400000), bit >= 192 && bit <= 255) << bit;
    }
}

TEST(TrackerRangeChanged, ARangeThatEndsBehindTheBitmapCountsAsChanged) {
    const TrackerState clear = MakeState(16, std::vector<uint8_t>(8));
    EXPECT_FALSE(TrackerRangeChanged(clear, 0, 0x400000));
    EXPECT_TRUE(TrackerRangeChanged(clear, 0, 0x400001));
    EXPECT_TRUE(TrackerRangeChanged(clear, uint64_t{1} << 40, 1));
    EXPECT_TRUE(TrackerRangeChanged(MakeState(16, {}), 0x400000, 0x400000));
}

TEST(TrackerRangeChanged, TheShiftCountsModulo64) {
    EXPECT_FALSE(TrackerRangeChanged(MakeState(64 + 16, {0x02}), 0, 0x10000));
    EXPECT_TRUE(TrackerRangeChanged(MakeState(64 + 16, {0x02}), 0x10000, 1));
    EXPECT_TRUE(TrackerRangeChanged(MakeState(64, {0x02}), 1, 1));
    EXPECT_FALSE(TrackerRangeChanged(MakeState(std::numeric_limits<uint32_t>::max(), {0x02}), 0, 0x400000));
}

TEST(TrackerRangeChanged, TheLargestShiftHasTwoBitsForAllDisks) {
    constexpr uint64_t middle = uint64_t{1} << 63;
    const TrackerState state = MakeState(63, {0x02});
    EXPECT_FALSE(TrackerRangeChanged(state, 0, middle));
    EXPECT_TRUE(TrackerRangeChanged(state, 0, middle + 1));
    EXPECT_TRUE(TrackerRangeChanged(state, std::numeric_limits<uint64_t>::max(), 1));
}

// Every range over a small disk, held against a look at each of its bytes.
TEST(TrackerRangeChanged, AgreesWithALookAtEachByte) {
    std::vector<std::vector<uint8_t>> bitmaps = {{}, {0x00}, {0xFE}, {0x24}, {0x00, 0x00}, {0x80, 0x01}};
    for (size_t bit = 0; bit < 16; ++bit) {
        bitmaps.push_back(BitmapWith(2, bit));
    }
    for (uint32_t shift = 0; shift < 5; ++shift) {
        for (const std::vector<uint8_t>& bitmap : bitmaps) {
            const TrackerState state = MakeState(shift, bitmap);
            for (uint64_t offset = 0; offset < 48; ++offset) {
                bool expected = false;
                for (uint64_t length = 1; length <= 48; ++length) {
                    const uint64_t bit = (offset + length - 1) >> shift;
                    expected = expected || bit / 8 >= bitmap.size() || (bitmap[bit / 8] >> bit % 8 & 1) != 0;
                    ASSERT_EQ(TrackerRangeChanged(state, offset, length), expected)
                        << "shift " << shift << ", " << length << " bytes at " << offset;
                }
            }
        }
    }
}

TEST(TrackerOpen, WithoutADriverTheDeviceIsNotOpenedAndTheTrackerNotAvailable) {
    TrackerState state;
    EXPECT_FALSE(TrackerOpen(state, 3));
    EXPECT_EQ(state.Device, INVALID_HANDLE_VALUE);
    EXPECT_EQ(state.DiskNumber, 3u);
    EXPECT_FALSE(state.Available);
    EXPECT_TRUE(state.Bitmap.empty());
}

} // namespace
} // namespace vornix
