// That passwords and derived keys are overwritten as soon as the key exists, in the object code that is shipped: the
// memory that held them is looked at where an optimiser that took the overwriting for useless would have left them.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "crypto/key_derivation.h"
#include "crypto/password_file.h"
#include "observed_calls.h"

namespace vornix {
namespace {

using observed::Observation;

constexpr std::array<uint8_t, 16> salt = {'N', 'a', 'C', 'l'};
constexpr uint32_t iterations = 2; // of no importance here
constexpr size_t largestPasswordFile = 1048576;

// No byte of it is zero, no stretch of it occurs twice, and nothing of it is trimmed.
std::string MakePassword(size_t length) {
    std::string password;
    uint32_t state = 12345;
    while (password.size() < length) {
        state = state * 1664525 + 1013904223;
        password.push_back(static_cast<char>(1 + (state >> 24) % 255));
    }
    password.back() = '.';
    return password;
}

std::vector<uint8_t> BytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

// A password file in the folder for temporary files, gone at the end.
class PasswordFile {
public:
    explicit PasswordFile(const std::string& content) {
        static int count = 0;
        const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::temp_directory_path() /
                (std::string("vornix-") + test->name() + std::to_string(++count) + ".password");
        std::ofstream stream(path_, std::ios::binary);
        stream << content;
    }
    ~PasswordFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    PasswordFile(const PasswordFile&) = delete;
    PasswordFile& operator=(const PasswordFile&) = delete;

    std::string Path() const { return path_.string(); }

private:
    std::filesystem::path path_;
};

// Bytes that are not zero where password and derived key had lain, once the key was made.
struct LeftOver {
    size_t Password;
    size_t DerivedKey;
};

// Makes a key and looks at once. What lay on the stack of the routine that has just returned is still there as long as
// nothing is called before the look, hence one routine with its loops in it. Out of the sanitizer's sight, since it
// knows as well as anybody that this memory is not in use any more, which is the point.
__attribute__((noinline, no_sanitize("address"))) LeftOver DeriveAndLook(const std::string& path,
                                                                         const Observation& observation) {
    const ChunkKey key = DeriveChunkKey(path, salt.data(), iterations);
    const volatile uint8_t* const password = observation.Password.Begin;
    const volatile uint8_t* const derived = observation.DerivedKey.Begin;
    LeftOver left{0, 0};
    for (size_t i = 0; i < observation.DerivedKey.Length; ++i) {
        left.DerivedKey += derived[i] != 0 ? 1u : 0u;
    }
    for (size_t i = 0; i < observation.Password.Length; ++i) {
        left.Password += password[i] != 0 ? 1u : 0u;
    }
    return left;
}

TEST(SecretWiping, OverwritesAPasswordOnTheHeapBeforeItsMemoryIsGivenBack) {
    for (const size_t length : {size_t{40}, size_t{255}, size_t{257}, size_t{5000}, largestPasswordFile}) {
        const std::string password = MakePassword(length);
        const PasswordFile file(password);
        Observation observation;
        const ChunkKey key = DeriveChunkKey(file.Path(), salt.data(), iterations);
        ASSERT_EQ(observation.PasswordBytes, BytesOf(password)) << "the place that is looked at held the password";
        ASSERT_TRUE(observation.IsPasswordFreed) << length;
        EXPECT_TRUE(observation.WasPasswordZero) << length;
    }
}

TEST(SecretWiping, OverwritesTheDerivedKeyBeforeThePasswordIsGivenBack) {
    const PasswordFile file(MakePassword(40));
    Observation observation;
    const ChunkKey key = DeriveChunkKey(file.Path(), salt.data(), iterations);
    ASSERT_EQ(observation.DerivedKeyBytes.size(), 32u);
    ASSERT_EQ(observation.KeySource, observation.DerivedKey.Begin) << "the key was made from these very bytes";
    ASSERT_TRUE(observation.IsPasswordFreed);
    EXPECT_TRUE(observation.WasDerivedKeyZero);
}

TEST(SecretWiping, LeavesNothingOfAShortPasswordOnTheStack) {
    // So short that the string keeps it, with the line end, within itself.
    for (const size_t length : {size_t{1}, size_t{8}, size_t{14}}) {
        const std::string password = MakePassword(length);
        const PasswordFile file(password + "\n");
        Observation observation;
        const LeftOver left = DeriveAndLook(file.Path(), observation);
        ASSERT_EQ(observation.PasswordBytes, BytesOf(password)) << "the place that is looked at held the password";
        ASSERT_FALSE(observation.IsPasswordFreed) << "the password lay on the stack";
        EXPECT_EQ(left.Password, 0u) << length;
    }
}

TEST(SecretWiping, LeavesNothingOfTheDerivedKeyOnTheStack) {
    const PasswordFile file(MakePassword(8));
    Observation observation;
    const LeftOver left = DeriveAndLook(file.Path(), observation);
    ASSERT_EQ(observation.DerivedKeyBytes.size(), 32u);
    ASSERT_EQ(observation.KeySource, observation.DerivedKey.Begin) << "the key was made from these very bytes";
    EXPECT_EQ(left.DerivedKey, 0u);
}

TEST(SecretWiping, DerivesFromThePasswordWithoutItsLineEnd) {
    // What the tests above compare with is made here from the same bytes by the routine below the one under test.
    const PasswordFile file("correct horse battery staple\r\n");
    Observation observation;
    const ChunkKey key = DeriveChunkKey(file.Path(), salt.data(), iterations);
    const std::vector<uint8_t> derived = observation.DerivedKeyBytes;
    std::array<uint8_t, derivedKeyLength> expected;
    DeriveKey("correct horse battery staple", salt.data(), iterations, expected.data());
    EXPECT_EQ(derived, std::vector<uint8_t>(expected.begin(), expected.end()));
}

// Runs when the process ends, while the string of the routine that ended it is still alive.
void ReportLargestBlock() {
    const observed::Place& block = observed::Current()->LargestBlock;
    const observed::Place password{block.Begin, largestPasswordFile};
    std::fprintf(stderr, "%s\n",
                 block.Length < largestPasswordFile ? "no block of that size"
                 : password.IsZero()                ? "password overwritten"
                                                    : "password left in memory");
}

TEST(SecretWipingDeathTest, OverwritesAPasswordThatTurnsOutTooLarge) {
    const PasswordFile file(MakePassword(largestPasswordFile + 1));
    EXPECT_EXIT(
        {
            const Observation observation;
            std::atexit(ReportLargestBlock);
            ReadPasswordFile(file.Path());
        },
        testing::ExitedWithCode(1), "password overwritten");
}

TEST(SecretWiping, ZeroesThePlaceOfEachTrimmedByte) {
    const PasswordFile file("secret\n\r\r\n");
    const std::string password = ReadPasswordFile(file.Path());
    ASSERT_EQ(password, "secret");
    ASSERT_GE(password.capacity(), 10u);
    const volatile char* const bytes = password.data();
    for (size_t i = 6; i < 10; ++i) {
        EXPECT_EQ(bytes[i], 0) << i;
    }
}

} // namespace
} // namespace vornix
