// What each port answers, held against published examples and against real files.

#include "port.h"
#include "reader_files.h"

#include <cstring>

using namespace vrnx;
using vrnx_tests::Folder;

namespace {

std::string ToHex(const uint8_t* bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; i++) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

std::vector<uint8_t> FromHex(const std::string& text) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

class Port : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(algorithms.Fetch()); }

    std::string HashOf(const std::vector<std::string>& parts) {
        uint8_t hash[hashSize];
        EXPECT_TRUE(context.BeginHash());
        for (const std::string& part : parts)
            EXPECT_TRUE(context.AddToHash(part.data(), part.size()));
        EXPECT_TRUE(context.EndHash(hash));
        return ToHex(hash, hashSize);
    }

    Algorithms algorithms;
    Context context{algorithms};
};

} // namespace

// FIPS 180-4's examples.
TEST_F(Port, HashesPublishedExamples) {
    EXPECT_EQ(HashOf({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(HashOf({"a", "bc"}), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(HashOf({std::string(999999, 'a'), "a"}),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_F(Port, ForgetsAHashThatWasNotEnded) {
    ASSERT_TRUE(context.BeginHash());
    ASSERT_TRUE(context.AddToHash("left over", 9));
    EXPECT_EQ(HashOf({"abc"}), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

// Case 15 of the examples that the authors of GCM published.
TEST_F(Port, OpensAPublishedMessage) {
    const auto key = FromHex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308");
    const auto nonce = FromHex("cafebabefacedbaddecaf888");
    const auto tag = FromHex("b094dac5d93471bdec1a502270e3cc6c");
    const auto sealed = FromHex("522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
                                "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad");
    const std::string plain = "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
                              "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255";
    for (int round = 0; round < 2; round++) { // the context serves again, also after a message that was refused
        auto bytes = sealed;
        EXPECT_EQ(context.Unseal(key.data(), nonce.data(), tag.data(), bytes.data(), bytes.size()), Unsealed::good);
        EXPECT_EQ(ToHex(bytes.data(), bytes.size()), plain);
        bytes = sealed;
        bytes[7] ^= 1;
        EXPECT_EQ(context.Unseal(key.data(), nonce.data(), tag.data(), bytes.data(), bytes.size()), Unsealed::bad);
        bytes = sealed;
        auto otherTag = tag;
        otherTag[15] ^= 0x80;
        EXPECT_EQ(context.Unseal(key.data(), nonce.data(), otherTag.data(), bytes.data(), bytes.size()), Unsealed::bad);
    }
}

// The key of the worked example in docs/image-format.md.
TEST_F(Port, DerivesAKey) {
    const auto salt = FromHex("7d99fb2eb4b7a7f5cbc96e30ed947368");
    const std::string password = "correct horse";
    uint8_t key[keySize];
    ASSERT_TRUE(
        DeriveKey(reinterpret_cast<const uint8_t*>(password.data()), password.size(), salt.data(), 100000, key));
    EXPECT_EQ(ToHex(key, keySize), "af8962b20c3f2b2fd9f8159803bbbe61560ee919fcd48b27011d5c716e0bede1");
}

TEST_F(Port, Wipes) {
    uint8_t secret[] = {1, 2, 3, 4};
    Wipe(secret, 3);
    EXPECT_EQ(ToHex(secret, 4), "00000004");
}

TEST_F(Port, ReadsAtAnyPlaceAndTellsTheEnd) {
    const Folder folder;
    const std::string path = folder.Write("file", {'a', 'b', 'c', 'd', 'e'});
    File file;
    ASSERT_EQ(file.Open(path.c_str()), 0);
    EXPECT_EQ(file.Size(), 5U);
    char buffer[8] = {};
    size_t got = 0;
    EXPECT_EQ(file.Read(3, buffer, 5, got), 0);
    EXPECT_EQ(std::string(buffer, got), "de");
    EXPECT_EQ(file.Read(1, buffer, 2, got), 0);
    EXPECT_EQ(std::string(buffer, got), "bc");
    EXPECT_EQ(file.Read(5, buffer, 1, got), 0);
    EXPECT_EQ(got, 0U);
    EXPECT_EQ(file.Read(0x1000000000, buffer, 1, got), 0);
    EXPECT_EQ(got, 0U);
}

TEST_F(Port, MovesAFile) {
    const Folder folder;
    File first;
    ASSERT_EQ(first.Open(folder.Write("first", {'1'}).c_str()), 0);
    File second;
    ASSERT_EQ(second.Open(folder.Write("second", {'2', '2'}).c_str()), 0);
    EXPECT_FALSE(first.IsSameAs(second));
    second = std::move(first);
    EXPECT_EQ(second.Size(), 1U);
    const File third(std::move(second));
    char byte = 0;
    size_t got = 0;
    EXPECT_EQ(third.Read(0, &byte, 1, got), 0);
    EXPECT_EQ(byte, '1');
    File again;
    ASSERT_EQ(again.Open(folder.Path("first").c_str()), 0);
    EXPECT_TRUE(again.IsSameAs(third));
}

TEST_F(Port, TellsWhatIsThere) {
    const Folder folder;
    const std::string path = folder.Write("file", {});
    EXPECT_TRUE(FileExists(path.c_str()));
    EXPECT_FALSE(FileExists(folder.Path("nowhere").c_str()));
    File file;
    EXPECT_GT(file.Open(folder.Path("nowhere").c_str()), 0);
    EXPECT_NE(file.Open(folder.Path("").c_str()), 0);
    size_t got = 0;
    char buffer[3] = {};
    EXPECT_GT(ReadWhole(folder.Path("nowhere").c_str(), buffer, sizeof buffer, got), 0);
    EXPECT_EQ(ReadWhole(folder.Write("long", {'a', 'b', 'c', 'd'}).c_str(), buffer, sizeof buffer, got), 0);
    EXPECT_EQ(std::string(buffer, got), "abc");
}

TEST_F(Port, FindsTheFolderOfAPath) {
    EXPECT_EQ(FolderLength("image"), 0U);
    EXPECT_EQ(FolderLength("a/image"), 2U);
    EXPECT_EQ(FolderLength("/image"), 1U);
    EXPECT_EQ(FolderLength(""), 0U);
    EXPECT_EQ(PathInFolder("a/", "name.vrnx"), "a/name.vrnx");
    EXPECT_EQ(PathInFolder("", "name.vrnx"), "name.vrnx");
}
