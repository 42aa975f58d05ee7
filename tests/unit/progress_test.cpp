// When a meter line is due, what it says where no command shows it, and sizes.
#include "cli/progress.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vornix {
namespace {

TEST(Meter, IsDueOnTheFirstEvery32ndAndTheLastChunk) {
    std::vector<uint64_t> due;
    for (uint64_t index = 0; index < 100; ++index) {
        if (IsProgressDue(index, 100)) {
            due.push_back(index);
        }
    }
    EXPECT_EQ(due, (std::vector<uint64_t>{0, 32, 64, 96, 99}));
}

std::string Line(uint64_t doneMebibytes, uint64_t totalMebibytes, uint64_t milliseconds) {
    testing::internal::CaptureStdout();
    PrintProgress(doneMebibytes << 20, totalMebibytes << 20, GetTickCount64() - milliseconds);
    return testing::internal::GetCapturedStdout();
}

TEST(Meter, ShowsZeroPercentOfNothingIsNotClampedAndHasTheMeanRate) {
    EXPECT_EQ(Line(0, 0, 0), "\r    0.00%  0 / 0 MiB  (0.0 MiB/s)   ");
    EXPECT_EQ(Line(3, 2, 0), "\r  150.00%  3 / 2 MiB  (0.0 MiB/s)   ");
    // An hour, so that the moment which the call itself takes does not show in one decimal.
    EXPECT_EQ(Line(36000, 36000, 3600000), "\r  100.00%  36000 / 36000 MiB  (10.0 MiB/s)   ");
}

TEST(Sizes, GibibytesAreTheByteCountTimesTwoToTheMinus30) {
    EXPECT_EQ(BytesToGiB(uint64_t{1} << 30), 1.0);
    EXPECT_EQ(BytesToGiB(uint64_t{3} << 29), 1.5);
    EXPECT_EQ(BytesToGiB(0), 0.0);
}

} // namespace
} // namespace vornix
