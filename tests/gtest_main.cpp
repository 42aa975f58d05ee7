// The main function of the GoogleTest programs: runs the tests, and closes with the line that ./check adds up.
#include <gtest/gtest.h>

#include <cstdio>

namespace {

// As the suites in Python do, each with its name and the reason.
void PrintSkipped(const testing::TestSuite& suite) {
    for (int test = 0; test < suite.total_test_count(); test++) {
        const testing::TestInfo& info = *suite.GetTestInfo(test);
        const testing::TestResult& result = *info.result();
        for (int part = 0; part < result.total_part_count(); part++) {
            if (result.GetTestPartResult(part).skipped()) {
                std::printf("skipped %s.%s: %s\n", info.test_suite_name(), info.name(),
                            result.GetTestPartResult(part).message());
            }
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    const testing::UnitTest& run = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < run.total_test_suite_count(); suite++) {
        PrintSkipped(*run.GetTestSuite(suite));
    }
    std::printf("%d passed, %d failed, %d skipped\n", run.successful_test_count(), run.failed_test_count(),
                run.skipped_test_count());
    // A filter that leaves no test over has proved nothing.
    return run.test_to_run_count() == 0 ? 1 : status;
}
