// Keys that are derived once: they are those of the host, from this password, salt and count and no other.
#include "bench/remembered_keys.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/real_calls.h"

using namespace vornix::bench;

namespace {

using Key = std::array<UCHAR, 32>;

class RememberedKeys : public testing::Test {
protected:
    void SetUp() override {
        const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
        folder_ = std::filesystem::temp_directory_path() / ("vornix-keys-" + std::to_string(ticks));
        ASSERT_TRUE(std::filesystem::create_directory(folder_));
        UseFolder(folder_.string());
        ASSERT_EQ(
            RealBCryptOpenAlgorithmProvider(&provider_, BCRYPT_SHA256_ALGORITHM, nullptr, BCRYPT_ALG_HANDLE_HMAC_FLAG),
            0);
    }

    void TearDown() override {
        EXPECT_EQ(RealBCryptCloseAlgorithmProvider(provider_, 0), 0);
        UseFolder("");
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    // The environment keeps the text, and gives none for an empty one.
    void UseFolder(const std::string& name) {
        setting_ = "VORNIX_BENCH_KEYS=" + name;
        ASSERT_EQ(putenv(setting_.data()), 0);
    }

    Key Derive(std::string password, std::string salt, ULONGLONG iterations) const {
        Key key{};
        EXPECT_EQ(DeriveKeyOnce(provider_, reinterpret_cast<PUCHAR>(password.data()),
                                static_cast<ULONG>(password.size()), reinterpret_cast<PUCHAR>(salt.data()),
                                static_cast<ULONG>(salt.size()), iterations, key.data(), 32, 0),
                  0);
        return key;
    }

    std::vector<std::filesystem::path> Files() const {
        return {std::filesystem::directory_iterator(folder_), std::filesystem::directory_iterator()};
    }

    static std::string ContentOf(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    static void Write(const std::filesystem::path& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }

    std::filesystem::path folder_;
    static std::string setting_; // outlives the test: the environment points to it
    BCRYPT_ALG_HANDLE provider_ = nullptr;
};

std::string RememberedKeys::setting_;

// RFC 7914, section 11: the first half of what PBKDF2-HMAC-SHA-256 gives for "passwd" and "salt" in one round.
constexpr Key known = {0x55, 0xac, 0x04, 0x6e, 0x56, 0xe3, 0x08, 0x9f, 0xec, 0x16, 0x91, 0xc2, 0x25, 0x44, 0xb6, 0x05,
                       0xf9, 0x41, 0x85, 0x21, 0x6d, 0xde, 0x04, 0x65, 0xe6, 0x8b, 0x9d, 0x57, 0xc2, 0x0d, 0xac, 0xbc};

TEST_F(RememberedKeys, AreTheHostsOwnTheFirstTimeAndTheSecond) {
    EXPECT_EQ(Derive("passwd", "salt", 1), known);
    EXPECT_EQ(Files().size(), 1u);
    EXPECT_EQ(Derive("passwd", "salt", 1), known);
    const Key many = Derive("passwd", "salt", 1000);
    EXPECT_EQ(Derive("passwd", "salt", 1000), many);
    UseFolder("");
    EXPECT_EQ(Derive("passwd", "salt", 1000), many);
    EXPECT_EQ(Files().size(), 2u);
}

TEST_F(RememberedKeys, AreOfOnePasswordSaltAndCountAlone) {
    const Key key = Derive("passwd", "salt", 2);
    EXPECT_NE(Derive("passwds", "alt", 2), key);
    EXPECT_NE(Derive("passwd", "salz", 2), key);
    EXPECT_NE(Derive("passwt", "salt", 2), key);
    EXPECT_NE(Derive("passwd", "salt", 3), key);
    EXPECT_EQ(Files().size(), 5u);
}

TEST_F(RememberedKeys, AreTakenFromWhereTheyAreKept) {
    const Key key = Derive("passwd", "salt", 1000);
    const std::filesystem::path path = Files().at(0);
    std::string content = ContentOf(path);
    const std::size_t place = content.find(std::string(key.begin(), key.end()));
    ASSERT_EQ(place, content.size() - key.size() - 8);
    content[place] = static_cast<char>(content[place] ^ 1);
    std::uint64_t check = 0xCBF29CE484222325;
    for (std::size_t i = 0; i < content.size() - 8; i++) {
        check = (check ^ static_cast<unsigned char>(content[i])) * 0x100000001B3;
    }
    std::memcpy(content.data() + content.size() - 8, &check, 8);
    Write(path, content);
    Key changed = key;
    changed[0] ^= 1;
    EXPECT_EQ(Derive("passwd", "salt", 1000), changed);
}

TEST_F(RememberedKeys, AreComputedAgainWhereTheFileIsNotWhole) {
    const Key key = Derive("passwd", "salt", 1000);
    const std::filesystem::path path = Files().at(0);
    const std::string whole = ContentOf(path);
    for (const std::string& content : {std::string(), whole.substr(0, whole.size() - 1),
                                       std::string(1, static_cast<char>(whole[0] ^ 1)) + whole.substr(1),
                                       whole.substr(0, whole.size() - 20) + std::string(20, 'x')}) {
        Write(path, content);
        EXPECT_EQ(Derive("passwd", "salt", 1000), key);
        EXPECT_EQ(ContentOf(path), whole);
    }
}

TEST_F(RememberedKeys, AreRefusedWhereTheHostRefuses) {
    (void)Derive("passwd", "salt", 1000);
    std::string password = "passwd";
    std::string salt = "salt";
    Key key{};
    EXPECT_NE(DeriveKeyOnce(nullptr, reinterpret_cast<PUCHAR>(password.data()), 6,
                            reinterpret_cast<PUCHAR>(salt.data()), 4, 1000, key.data(), 32, 0),
              0);
    EXPECT_EQ(key, Key{});
}

TEST_F(RememberedKeys, ComeBackWithTheOneSaltThatIsAskedFor) {
    BCRYPT_ALG_HANDLE random = nullptr;
    ASSERT_EQ(RealBCryptOpenAlgorithmProvider(&random, BCRYPT_RNG_ALGORITHM, nullptr, 0), 0);
    const auto draw = [random](ULONG length) {
        std::string bytes(length, '\0');
        EXPECT_EQ(DrawOrSameSalt(random, reinterpret_cast<PUCHAR>(bytes.data()), length, 0), 0);
        return bytes;
    };
    EXPECT_NE(draw(16), draw(16));
    static std::string wish = "VORNIX_BENCH_SALT=same"; // outlive the test: the environment points to them
    static std::string none = "VORNIX_BENCH_SALT=";
    ASSERT_EQ(putenv(wish.data()), 0);
    EXPECT_EQ(draw(16), draw(16));
    EXPECT_NE(draw(12), draw(12));
    ASSERT_EQ(putenv(none.data()), 0);
    EXPECT_NE(draw(16), draw(16));
    EXPECT_EQ(RealBCryptCloseAlgorithmProvider(random, 0), 0);
}

} // namespace
