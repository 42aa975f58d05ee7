// The thin trailer: its bytes, what a reader makes of them, and the base that its proof takes. What is refused
// of a trailer and of the name in it is tried on whole images, by test_thin_chains.py.
#include "image/thin_trailer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "image/paths.h"

namespace vornix {
namespace {

Sha256Digest CountingDigest() {
    Sha256Digest digest;
    std::iota(digest.begin(), digest.end(), uint8_t{0xA0});
    return digest;
}

std::vector<uint8_t> Trailer(const std::string& baseName) {
    return BuildThinTrailer({baseName, CountingDigest()});
}

// A file of `dataEnd` bytes and then these, open for reading; gone at the end of the test.
class ThinFile {
public:
    ThinFile(uint64_t dataEnd, const std::vector<uint8_t>& rest)
        : dataEnd_(dataEnd), size_(static_cast<int64_t>(dataEnd + rest.size())) {
        std::string content(dataEnd, 'Z');
        content.append(rest.begin(), rest.end());
        path_ = testing::TempDir() + "vornix-thin-" + std::to_string(std::random_device()());
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

TEST(BuildThinTrailer, LaysOutItsFieldsOneBehindTheOther) {
    const std::vector<uint8_t> bytes = Trailer("g0.vrnx");
    ASSERT_EQ(bytes.size(), 55u);
    EXPECT_EQ(std::memcmp(bytes.data(), "VRNXBASE\x07\0\0\0g0.vrnx", 19), 0);
    EXPECT_TRUE(std::equal(bytes.begin() + 19, bytes.begin() + 51, CountingDigest().begin()));
    EXPECT_EQ(std::memcmp(bytes.data() + 51, "\x37\0\0\0", 4), 0);
}

TEST(BuildThinTrailer, LengthsAreLittleEndian) {
    const std::vector<uint8_t> bytes = Trailer(std::string(0x102, 'n'));
    EXPECT_EQ(bytes[8], 0x02);
    EXPECT_EQ(bytes[9], 0x01);
    EXPECT_EQ(bytes[bytes.size() - 4], 0x32);
    EXPECT_EQ(bytes[bytes.size() - 3], 0x01);
}

// The bytes of the name are not looked at, nor is what lies between the data and the trailer.
TEST(ReadThinTrailer, GivesNameAndDigest) {
    for (const std::string& name : {std::string("n"), std::string("\0:/\\\xFF\n", 6), std::string(255, 'n'),
                                    std::string(4047, 'n'), std::string(4048, 'n')}) {
        for (const uint64_t dataEnd : {0u, 136u}) {
            for (const size_t between : {0u, 1000u}) {
                std::vector<uint8_t> rest = Trailer(name);
                rest.insert(rest.begin(), between, 0xEE);
                const ThinTrailer read = ThinFile(dataEnd, rest).Read();
                EXPECT_EQ(read.BaseName, name);
                EXPECT_EQ(read.BaseDigest, CountingDigest());
            }
        }
    }
}

TEST(FindBaseImage, LooksInTheFolderOfTheImage) {
    const std::string folder = testing::TempDir();
    const std::string name = "vornix-base-" + std::to_string(std::random_device()());
    std::FILE* const file = std::fopen((folder + name).c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    EXPECT_EQ(FindBaseImage(folder + "thin.vrnx", {name, {}}), folder + name);
    std::remove((folder + name).c_str());
}

TEST(ProveBaseImage, TakesTheBaseThatIsPinnedWhateverTheOtherFieldsSay) {
    ImageHeader base{};
    base.DiskSize = 5000;
    base.ChunkSize = 4096;
    base.ChunkCount = 2;
    const ImageHeader image = base;
    base.SectorSize = 4096;
    base.Version = fullImageVersion;
    base.Encrypted = 1;
    base.Epoch.fill(1);
    base.Salt.fill(2);
    base.KdfIterations = writtenKdfIterations;
    testing::internal::CaptureStderr();
    ProveBaseImage("x/base", {"base", CountingDigest()}, CountingDigest(), base, image); // ends the process if refused
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
} // namespace vornix
