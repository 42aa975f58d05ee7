// The thin trailer: its bytes, what a reader makes of them, and the proof that a base is the right one. Refusals end
// the process, so each is watched from outside.
#include "image/thin_trailer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "image/paths.h"

namespace vornix {
namespace {

Sha256Digest CountingDigest() {
    Sha256Digest digest;
    for (size_t i = 0; i < digest.size(); ++i) {
        digest[i] = static_cast<uint8_t>(0xA0 + i);
    }
    return digest;
}

std::vector<uint8_t> Trailer(const std::string& baseName) {
    return BuildThinTrailer({baseName, CountingDigest()});
}

void PutLittle(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) {
        bytes[offset + i] = static_cast<uint8_t>(value >> 8 * i);
    }
}

// A file of `dataEnd` bytes and then these, open for reading; gone at the end of the test.
//
// On Windows the process that is to end runs the test anew up to that point, while the one that watches it still holds
// the file. So the name follows from the content alone, and a file that cannot be written is one that is there already.
class ThinFile {
public:
    ThinFile(uint64_t dataEnd, const std::vector<uint8_t>& rest)
        : dataEnd_(dataEnd), size_(static_cast<int64_t>(dataEnd + rest.size())) {
        std::string content(dataEnd, 'Z');
        content.append(rest.begin(), rest.end());
        path_ = testing::TempDir() + "vornix-thin-" + std::to_string(std::hash<std::string>{}(content));
        if (std::FILE* const file = std::fopen(path_.c_str(), "wb")) {
            EXPECT_EQ(std::fwrite(content.data(), 1, content.size(), file), content.size());
            std::fclose(file);
        }
        handle_ = CreateFileW(WidenPath(path_).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
        EXPECT_NE(handle_, INVALID_HANDLE_VALUE);
    }
    ThinFile(const ThinFile&) = delete;
    ThinFile& operator=(const ThinFile&) = delete;
    ~ThinFile() {
        CloseHandle(handle_);
        std::remove(path_.c_str());
    }

    ThinTrailer Read() const { return ReadThinTrailer(handle_, size_, dataEnd_); }

private:
    std::string path_;
    uint64_t dataEnd_;
    int64_t size_;
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// Runs in a process of its own, which ends as the program does.
void ExpectRefused(const ThinFile& file, const std::string& message) {
    EXPECT_EXIT(file.Read(), testing::ExitedWithCode(1), "FATAL: " + message);
}

constexpr const char* noValidTrailer = "thin image has no valid trailer - file is truncated .GetLastError=";
constexpr const char* malformed = "thin image trailer is malformed .GetLastError=";

TEST(BuildThinTrailer, LaysOutItsFieldsOneBehindTheOther) {
    const std::vector<uint8_t> bytes = Trailer("g0.vrnx");
    ASSERT_EQ(bytes.size(), 55u);
    EXPECT_EQ(std::memcmp(bytes.data(), "VRNXBASE\x07\0\0\0g0.vrnx", 19), 0);
    EXPECT_TRUE(std::equal(bytes.begin() + 19, bytes.begin() + 51, CountingDigest().begin()));
    EXPECT_EQ(std::memcmp(bytes.data() + 51, "\x37\0\0\0", 4), 0);
}

TEST(BuildThinTrailer, TakesTheNameAsItIs) {
    const std::string name("a\0b:/\\\xFF", 7);
    const std::vector<uint8_t> bytes = Trailer(name);
    ASSERT_EQ(bytes.size(), 48u + 7u);
    EXPECT_EQ(std::string(bytes.begin() + 12, bytes.begin() + 19), name);
}

TEST(BuildThinTrailer, LengthsAreLittleEndian) {
    const std::vector<uint8_t> bytes = Trailer(std::string(0x102, 'n'));
    EXPECT_EQ(bytes[8], 0x02);
    EXPECT_EQ(bytes[9], 0x01);
    EXPECT_EQ(bytes[bytes.size() - 4], 0x32);
    EXPECT_EQ(bytes[bytes.size() - 3], 0x01);
}

TEST(ReadThinTrailer, GivesNameAndDigest) {
    for (const size_t length : {1u, 2u, 7u, 255u, 4047u, 4048u}) {
        const std::string name(length, 'n');
        const ThinTrailer read = ThinFile(100, Trailer(name)).Read();
        EXPECT_EQ(read.BaseName, name);
        EXPECT_EQ(read.BaseDigest, CountingDigest());
    }
}

TEST(ReadThinTrailer, TheTrailerMayBeginWhereTheDataEnd) {
    EXPECT_EQ(ThinFile(0, Trailer("base")).Read().BaseName, "base");
    EXPECT_EQ(ThinFile(136, Trailer("base")).Read().BaseName, "base");
}

TEST(ReadThinTrailer, WhatLiesBetweenDataAndTrailerIsIgnored) {
    std::vector<uint8_t> rest(1000, 0xEE);
    const std::vector<uint8_t> trailer = Trailer("base");
    rest.insert(rest.end(), trailer.begin(), trailer.end());
    EXPECT_EQ(ThinFile(100, rest).Read().BaseName, "base");
}

TEST(ReadThinTrailer, BytesOfANameAreNotLookedAt) {
    const std::string name("\0:/\\\xFF\n", 6);
    EXPECT_EQ(ThinFile(10, Trailer(name)).Read().BaseName, name);
}

TEST(ReadThinTrailerDeathTest, RefusesAFileWithoutRoomForOne) {
    ExpectRefused(ThinFile(100, {}), noValidTrailer);
    std::vector<uint8_t> almost(47, 0);
    PutLittle(almost, 43, 48);
    ExpectRefused(ThinFile(100, almost), noValidTrailer);
}

TEST(ReadThinTrailerDeathTest, RefusesLengthsOutOfBounds) {
    for (const uint32_t length : {0u, 47u, 4097u, 0xFFFFFFFFu}) {
        std::vector<uint8_t> rest(5000, 0);
        PutLittle(rest, rest.size() - 4, length);
        ExpectRefused(ThinFile(100, rest), noValidTrailer);
    }
}

TEST(ReadThinTrailerDeathTest, RefusesATrailerThatReachesIntoTheData) {
    std::vector<uint8_t> trailer = Trailer("base");
    PutLittle(trailer, trailer.size() - 4, 53);
    ExpectRefused(ThinFile(100, trailer), noValidTrailer);
    // One byte of room more, and its length is within bounds; what it then begins with is no magic.
    trailer.insert(trailer.begin(), 0);
    ExpectRefused(ThinFile(100, trailer), malformed);
}

TEST(ReadThinTrailerDeathTest, RefusesAnotherMagicAndLengthsThatDoNotFit) {
    std::vector<uint8_t> trailer = Trailer("base");
    trailer[7] = 'F';
    ExpectRefused(ThinFile(100, trailer), malformed);
    trailer = Trailer("base");
    PutLittle(trailer, 8, 5);
    ExpectRefused(ThinFile(100, trailer), malformed);
    ExpectRefused(ThinFile(100, Trailer("")), malformed);
}

TEST(FindBaseImage, LooksInTheFolderOfTheImage) {
    const std::string folder = testing::TempDir();
    const std::string name = "vornix-base-image";
    std::FILE* const file = std::fopen((folder + name).c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    EXPECT_EQ(FindBaseImage(folder + "thin.vrnx", {name, {}}), folder + name);
    std::remove((folder + name).c_str());
}

TEST(FindBaseImageDeathTest, RefusesAMissingBaseWithItsPath) {
    EXPECT_EXIT(FindBaseImage("nowhere/thin.vrnx", {"base", {}}), testing::ExitedWithCode(1),
                "This is a thin .incremental. image; its base image is missing: nowhere/base\n"
                "Keep every image of a chain in the same folder.\n"
                "FATAL: base image of a thin image not found .GetLastError=");
}

TEST(FindBaseImageDeathTest, RefusesANameThatLeadsOutOfTheFolder) {
    for (const char* name : {"/base", "a\\base", "C:base", "base/", ":"}) {
        EXPECT_EXIT(FindBaseImage("thin.vrnx", {name, {}}), testing::ExitedWithCode(1),
                    "^FATAL: thin image trailer names a base outside its folder - refusing");
    }
}

ImageHeader Shape(uint64_t diskSize, uint32_t chunkSize, uint64_t chunkCount) {
    ImageHeader header{};
    header.DiskSize = diskSize;
    header.ChunkSize = chunkSize;
    header.ChunkCount = chunkCount;
    return header;
}

TEST(ProveBaseImageDeathTest, TakesTheBaseThatIsPinnedWhateverTheOtherFieldsSay) {
    ImageHeader base = Shape(5000, 4096, 2);
    const ImageHeader image = Shape(5000, 4096, 2);
    base.SectorSize = 4096;
    base.Version = fullImageVersion;
    base.Encrypted = 1;
    base.Epoch.fill(1);
    base.Salt.fill(2);
    base.KdfIterations = writtenKdfIterations;
    constexpr int cameBack = 7;
    EXPECT_EXIT(
        {
            ProveBaseImage("base", {"base", CountingDigest()}, CountingDigest(), base, image);
            std::exit(cameBack);
        },
        testing::ExitedWithCode(cameBack), "^$");
}

TEST(ProveBaseImageDeathTest, RefusesEveryOtherDigest) {
    const ImageHeader header = Shape(5000, 4096, 2);
    for (const size_t byte : {0u, 15u, 31u}) {
        Sha256Digest other = CountingDigest();
        other[byte] ^= 1;
        EXPECT_EXIT(ProveBaseImage("x/base", {"base", CountingDigest()}, other, header, header),
                    testing::ExitedWithCode(1),
                    "Base image x/base is not the one this image was made against .it was modified or replaced..\n"
                    "FATAL: base image does not match the one pinned in the thin image .GetLastError=");
    }
}

TEST(ProveBaseImageDeathTest, RefusesAnotherShape) {
    const ImageHeader image = Shape(5000, 4096, 2);
    for (const ImageHeader& base : {Shape(5001, 4096, 2), Shape(5000, 4608, 2), Shape(5000, 4096, 3)}) {
        EXPECT_EXIT(ProveBaseImage("base", {"base", CountingDigest()}, CountingDigest(), base, image),
                    testing::ExitedWithCode(1), "^FATAL: base image geometry differs from the thin image");
    }
}

} // namespace
} // namespace vornix
