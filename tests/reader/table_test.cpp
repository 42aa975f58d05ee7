// What is kept of a table, against a list that keeps it all.

#include "table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

using namespace vrnx;

namespace {

TEST(CountedBits, TellHowManyAreSetBeforeEach) {
    std::mt19937 chance(1);
    for (const uint64_t size : {1U, 2U, 63U, 64U, 65U, 128U, 1000U}) {
        for (const unsigned one : {1U, 2U, 70U}) { // all, half of them, a few
            CountedBits bits;
            bits.Resize(size);
            std::vector<bool> expected;
            for (uint64_t i = 0; i < size; i++) {
                expected.push_back(chance() % one == 0);
                bits.Append(expected.back());
            }
            uint32_t before = 0;
            for (uint64_t i = 0; i < size; i++) {
                EXPECT_EQ(bits[i], expected[i]) << i << " of " << size;
                EXPECT_EQ(bits.CountBefore(i), before) << i << " of " << size;
                before += expected[i] ? 1U : 0U;
            }
            EXPECT_EQ(bits.CountBefore(size), before);
        }
    }
}

// A table can end early: behind what is there nothing is set.
TEST(CountedBits, CountAllWhereFewerCameThanThereIsRoomFor) {
    CountedBits bits;
    bits.Resize(1000);
    EXPECT_EQ(bits.CountBefore(1000), 0U);
    for (int i = 0; i < 128; i++)
        bits.Append(i % 2 == 0);
    for (const uint64_t number : {128U, 129U, 500U, 1000U})
        EXPECT_EQ(bits.CountBefore(number), 64U);
}

TEST(Entries, KeepEachInItsPlaceAcrossBlocks) {
    constexpr uint32_t count = 3 * 65536 + 7;
    for (const size_t size : {28U, 32U}) {
        Entries entries(size);
        EXPECT_TRUE(entries.IsEmpty());
        auto entryOf = [&](uint32_t number) {
            std::vector<uint8_t> entry(size);
            for (size_t i = 0; i < size; i++)
                entry[i] = static_cast<uint8_t>(number >> (i % 4 * 8) ^ i);
            return entry;
        };
        const uint8_t* first = nullptr;
        for (uint32_t number = 0; number < count; number++) {
            entries.Append(entryOf(number).data(), count - number);
            first = first == nullptr ? entries[0] : first;
            ASSERT_EQ(memcmp(entries.Last(), entryOf(number).data(), size), 0) << number;
        }
        EXPECT_EQ(entries[0], first);
        for (uint32_t number = 0; number < count; number++)
            ASSERT_EQ(memcmp(entries[number], entryOf(number).data(), size), 0) << number;
    }
}

} // namespace
