// The arithmetic of the image format.
#include "image/image_format.h"

#include <gtest/gtest.h>

#include "cli/progress.h"

namespace vornix {
namespace {

TEST(ImageFormat, ChunkDataBeginsBehindHeaderAndTable) {
    EXPECT_EQ(ChunkDataStart(0), 64U);
    EXPECT_EQ(ChunkDataStart(3), 280U);
    EXPECT_EQ(ChunkDataStart(largestChunkCount) - 64, 268435440U);
}

TEST(ImageFormat, OnlyTheLastChunkIsShorter) {
    constexpr uint64_t diskSize = 10486272;
    constexpr uint32_t chunkSize = 4194304;
    EXPECT_EQ(PlainLengthOfChunk(diskSize, chunkSize, 0), 4194304U);
    EXPECT_EQ(PlainLengthOfChunk(diskSize, chunkSize, 1), 4194304U);
    EXPECT_EQ(PlainLengthOfChunk(diskSize, chunkSize, 2), 2097664U);
}

TEST(ImageFormat, DiskOfWholeChunksEndsInAFullOne) {
    EXPECT_EQ(PlainLengthOfChunk(8388608, 4194304, 1), 4194304U);
    EXPECT_EQ(PlainLengthOfChunk(512, 4194304, 0), 512U);
}

TEST(Meter, IsDueOnTheFirstEvery32ndAndTheLastChunk) {
    EXPECT_TRUE(IsProgressDue(0, 100));
    EXPECT_FALSE(IsProgressDue(1, 100));
    EXPECT_FALSE(IsProgressDue(31, 100));
    EXPECT_TRUE(IsProgressDue(32, 100));
    EXPECT_FALSE(IsProgressDue(98, 100));
    EXPECT_TRUE(IsProgressDue(99, 100));
}

TEST(Sizes, GibibytesAreTheByteCountTimesTwoToTheMinus30) {
    EXPECT_EQ(BytesToGiB(uint64_t{1} << 30), 1.0);
    EXPECT_EQ(BytesToGiB(uint64_t{3} << 29), 1.5);
    EXPECT_EQ(BytesToGiB(0), 0.0);
}

} // namespace
} // namespace vornix
