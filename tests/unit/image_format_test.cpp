// The arithmetic of the image format.
#include "image/image_format.h"

#include <gtest/gtest.h>

namespace vornix {
namespace {

TEST(ImageFormat, ChunkDataBeginsBehindHeaderAndTable) {
    EXPECT_EQ(ChunkDataStart(0), 64U);
    EXPECT_EQ(ChunkDataStart(3), 280U);
    EXPECT_EQ(ChunkDataStart(largestChunkCount) - 64, 268435440U);
}

TEST(ImageFormat, OnlyTheLastChunkMayBeShorter) {
    EXPECT_EQ(PlainLengthOfChunk(10486272, 4194304, 0), 4194304U);
    EXPECT_EQ(PlainLengthOfChunk(10486272, 4194304, 1), 4194304U);
    EXPECT_EQ(PlainLengthOfChunk(10486272, 4194304, 2), 2097664U);
    EXPECT_EQ(PlainLengthOfChunk(8388608, 4194304, 1), 4194304U);
    EXPECT_EQ(PlainLengthOfChunk(512, 4194304, 0), 512U);
}

} // namespace
} // namespace vornix
