// What ends the process and no image in a file can show: a chunk of an image that no open gives out, and the single
// causes that the proof of a base refuses it for.
//
// On Windows GoogleTest starts the whole program anew for each of these, and one start in some thousand fails under
// Wine. The code is the same there.
#include "image/chunk_retrieval.h"
#include "image/thin_trailer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <numeric>

namespace vornix {
namespace {

TEST(ReadChunkPlainDeathTest, AReferenceIntoNoBase) {
    OpenImage image;
    image.Header.DiskSize = 512;
    image.Header.ChunkSize = 512;
    image.Header.ChunkCount = 1;
    image.Chunks.resize(1); // a stored length of 0, which is a reference to the base
    std::array<uint8_t, 512> plain{};
    EXPECT_EXIT(
        {
            SetLastError(1234);
            ReadChunkPlain(image, 0, plain.data());
        },
        testing::ExitedWithCode(1), "^FATAL: image has a thin chunk but no base image .GetLastError=1234.\n$");
}

class ProveBaseImageDeathTest : public testing::Test {
protected:
    ProveBaseImageDeathTest() { std::iota(digest_.begin(), digest_.end(), uint8_t{0xA0}); }

    static ImageHeader Shape(uint64_t diskSize, uint32_t chunkSize, uint64_t chunkCount) {
        ImageHeader header{};
        header.DiskSize = diskSize;
        header.ChunkSize = chunkSize;
        header.ChunkCount = chunkCount;
        return header;
    }

    void Prove(const Sha256Digest& digest, const ImageHeader& base) const {
        ProveBaseImage("x/base", {"base", digest_}, digest, base, Shape(5000, 4096, 2));
    }

    Sha256Digest digest_{};
};

TEST_F(ProveBaseImageDeathTest, RefusesEveryOtherDigest) {
    for (const size_t byte : {0u, 15u, 31u}) {
        Sha256Digest other = digest_;
        other[byte] ^= 1;
        EXPECT_EXIT(Prove(other, Shape(5000, 4096, 2)), testing::ExitedWithCode(1),
                    "^Base image x/base is not the one this image was made against .it was modified or replaced..\n"
                    "FATAL: base image does not match the one pinned in the thin image .GetLastError=");
    }
}

TEST_F(ProveBaseImageDeathTest, RefusesAnotherShape) {
    for (const ImageHeader& base : {Shape(5001, 4096, 2), Shape(5000, 4608, 2), Shape(5000, 4096, 3)}) {
        EXPECT_EXIT(Prove(digest_, base), testing::ExitedWithCode(1),
                    "^FATAL: base image geometry differs from the thin image");
    }
}

} // namespace
} // namespace vornix
