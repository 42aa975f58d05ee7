// The stream of a password file. What is read through it is tried with files, in tests/scenarios/test_password_file.py.
#include "crypto/password_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>

namespace vornix {
namespace {

// Whether this process has the file open.
bool IsOpenHere(const std::filesystem::path& path) {
#ifdef _WIN32
    // A file that is open cannot be renamed.
    std::error_code error;
    const std::filesystem::path moved = path.string() + ".moved";
    std::filesystem::rename(path, moved, error);
    if (!error) {
        std::filesystem::rename(moved, path);
    }
    return static_cast<bool>(error);
#else
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::equivalent(entry.path(), path, error)) {
            return true;
        }
    }
    return false;
#endif
}

TEST(PasswordFile, IsClosedOnceItIsRead) {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("vornix-password-" + std::to_string(std::random_device()()));
    std::ofstream(path, std::ios::binary) << "correct horse\n";
    {
        const std::ifstream held(path);
        ASSERT_TRUE(IsOpenHere(path));
    }
    EXPECT_EQ(ReadPasswordFile(path.string()), "correct horse");
    EXPECT_FALSE(IsOpenHere(path));
    std::filesystem::remove(path);
}

} // namespace
} // namespace vornix
