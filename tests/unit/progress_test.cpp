// The meter line, where no command shows it.
#include "cli/progress.h"

#include <windows.h>
#include <gtest/gtest.h>

namespace vornix {
namespace {

TEST(Meter, ShowsZeroPercentOfNothing) {
    testing::internal::CaptureStdout();
    PrintProgress(0, 0, GetTickCount64());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\r    0.00%  0 / 0 MiB  (0.0 MiB/s)   ");
}

TEST(Meter, IsNotClamped) {
    testing::internal::CaptureStdout();
    PrintProgress(uint64_t{3} << 20, uint64_t{2} << 20, GetTickCount64());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\r  150.00%  3 / 2 MiB  (0.0 MiB/s)   ");
}

TEST(Meter, ShowsTheMeanRateSinceTheStart) {
    testing::internal::CaptureStdout();
    // An hour ago, so that the moment which the call itself takes does not show in one decimal.
    PrintProgress(uint64_t{36000} << 20, uint64_t{36000} << 20, GetTickCount64() - 3600000);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\r  100.00%  36000 / 36000 MiB  (10.0 MiB/s)   ");
}

} // namespace
} // namespace vornix
