// The moves of an opened image. The opening itself is tried with files, in tests/scenarios/test_image_open.py.
#include "image/open_image.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vornix {
namespace {

// Every member with a value of its own; `file` stands for the handle.
OpenImage MakeThinImage(void* file) {
    OpenImage image;
    image.File = file;
    image.Header.Version = thinImageVersion;
    image.Header.ChunkCount = 2;
    image.Chunks.resize(2);
    image.Chunks[1].StoredLength = 7;
    const std::array<uint8_t, 32> keyBytes{1, 2, 3};
    image.Key = std::make_unique<ChunkKey>(keyBytes.data());
    image.Digest.fill(0x5A);
    image.ChunkOffsets = {208, 208};
    image.Base = std::make_unique<OpenImage>();
    image.BaseName = "base.vrnx";
    return image;
}

void ExpectThinImage(const OpenImage& image, const void* file, const OpenImage* base) {
    EXPECT_EQ(image.File, file);
    EXPECT_EQ(uint32_t{image.Header.Version}, thinImageVersion);
    EXPECT_EQ(uint64_t{image.Header.ChunkCount}, 2U);
    ASSERT_EQ(image.Chunks.size(), 2U);
    EXPECT_EQ(uint32_t{image.Chunks[1].StoredLength}, 7U);
    EXPECT_NE(image.Key, nullptr);
    Sha256Digest digest;
    digest.fill(0x5A);
    EXPECT_EQ(image.Digest, digest);
    EXPECT_EQ(image.ChunkOffsets, (std::vector<uint64_t>{208, 208}));
    EXPECT_EQ(image.Base.get(), base);
    EXPECT_EQ(image.BaseName, "base.vrnx");
}

void ExpectEmpty(const OpenImage& image) {
    EXPECT_TRUE(image.Chunks.empty());
    EXPECT_EQ(image.Key, nullptr);
    EXPECT_TRUE(image.ChunkOffsets.empty());
    EXPECT_EQ(image.Base, nullptr);
    EXPECT_EQ(image.BaseName, "");
}

TEST(OpenImage, MovesEverythingAndLeavesNothingBehind) {
    int file = 0;
    OpenImage first = MakeThinImage(&file);
    const OpenImage* const base = first.Base.get();
    OpenImage second(std::move(first));
    ExpectThinImage(second, &file, base);
    ExpectEmpty(first); // NOLINT(bugprone-use-after-move): what is left of it is what is asked

    int otherFile = 0;
    OpenImage third = MakeThinImage(&otherFile);
    third = std::move(second);
    ExpectThinImage(third, &file, base);
    ExpectEmpty(second); // NOLINT(bugprone-use-after-move): likewise
}

} // namespace
} // namespace vornix
