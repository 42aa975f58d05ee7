// What the retrieval of a chunk does with an image that no open gives out. Everything else about it is tried with
// images in files, in tests/scenarios/test_chunk_retrieval.py.
#include "image/chunk_retrieval.h"

#include "unit/process_end.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

namespace vornix {
namespace {

TEST(ReadChunkPlain, EndsTheProcessAtAReferenceIntoNoBase) {
    OpenImage image;
    image.Header.DiskSize = 512;
    image.Header.ChunkSize = 512;
    image.Header.ChunkCount = 1;
    image.Chunks.resize(1); // a stored length of 0, which is a reference to the base
    std::array<uint8_t, 512> plain{};
    const ProcessEnd end = EndOf([&] {
        SetLastError(1234);
        ReadChunkPlain(image, 0, plain.data());
    });
    EXPECT_EQ(end.Status, 1);
    EXPECT_EQ(end.Errors, "FATAL: image has a thin chunk but no base image (GetLastError=1234)\n");
}

} // namespace
} // namespace vornix
