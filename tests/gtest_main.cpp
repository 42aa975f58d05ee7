// The main function of the GoogleTest programs: runs the tests, and closes with the line that ./check adds up.
#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    const testing::UnitTest& run = *testing::UnitTest::GetInstance();
    std::printf("%d passed, %d failed, %d skipped\n", run.successful_test_count(), run.failed_test_count(),
                run.skipped_test_count());
    // A filter that leaves no test over has proved nothing.
    return run.test_to_run_count() == 0 ? 1 : status;
}
