// Ownership of AlignedBuffer.
#include "disk/aligned_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace vornix {
namespace {

TEST(AlignedBuffer, IsAlignedAsAskedAndWritable) {
    for (const uint64_t alignment : {64U, 512U, 4096U, 65536U}) {
        const AlignedBuffer buffer(10000, alignment);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()) % alignment, 0U);
        EXPECT_EQ(buffer.size(), 10000U);
        std::memset(buffer.data(), 0xA5, buffer.size());
        EXPECT_EQ(buffer.data()[9999], 0xA5);
    }
}

TEST(AlignedBuffer, MoveHandsTheBlockOverAndLeavesTheSourceEmpty) {
    AlignedBuffer first(512, 512);
    uint8_t* const block = first.data();
    AlignedBuffer second(std::move(first));
    EXPECT_EQ(second.data(), block);
    EXPECT_EQ(second.size(), 512U);
    EXPECT_EQ(first.data(), nullptr); // NOLINT(bugprone-use-after-move): that is what is tested
    EXPECT_EQ(first.size(), 0U);
}

TEST(AlignedBuffer, MoveAssignmentReleasesTheOldBlock) {
    AlignedBuffer first(512, 512);
    AlignedBuffer second(1024, 512);
    uint8_t* const block = first.data();
    second = std::move(first); // the leak checker sees what is not released
    EXPECT_EQ(second.data(), block);
    EXPECT_EQ(second.size(), 512U);
}

TEST(AlignedBuffer, MoveAssignmentToItselfKeepsTheBlock) {
    AlignedBuffer buffer(512, 512);
    uint8_t* const block = buffer.data();
    AlignedBuffer& same = buffer;
    buffer = std::move(same);
    EXPECT_EQ(buffer.data(), block);
    EXPECT_EQ(buffer.size(), 512U);
}

} // namespace
} // namespace vornix
