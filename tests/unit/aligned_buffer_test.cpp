// Ownership of AlignedBuffer.
#include "disk/aligned_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace vornix {
namespace {

TEST(AlignedBuffer, IsAlignedAsAskedAndWritable) {
    for (const uint64_t alignment : {64U, 512U, 4096U, 65536U}) {
        const AlignedBuffer buffer(10000, alignment);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()) % alignment, 0U);
        std::memset(buffer.data(), 0xA5, 10000);
        EXPECT_EQ(buffer.data()[9999], 0xA5);
    }
}

TEST(AlignedBuffer, MovesAndIsNeverCopied) {
    static_assert(!std::is_copy_constructible_v<AlignedBuffer>);
    static_assert(!std::is_copy_assignable_v<AlignedBuffer>);
    AlignedBuffer first(512, 512);
    AlignedBuffer second(1024, 512);
    uint8_t* const block = first.data();
    second = std::move(first); // the leak checker sees what is not released
    EXPECT_EQ(second.data(), block);
    EXPECT_EQ(first.data(), nullptr); // NOLINT(bugprone-use-after-move): that is what is tested
}

TEST(AlignmentForDisk, IsTheLargerOfTheSectorAnd4096) {
    EXPECT_EQ(AlignmentForDisk(512), 4096U);
    EXPECT_EQ(AlignmentForDisk(4096), 4096U);
    EXPECT_EQ(AlignmentForDisk(8192), 8192U);
}

} // namespace
} // namespace vornix
