// Image files as someone else may have made them: opening one with its chain, and reading every chunk.
//
// An input is a byte of wishes, the number of images, and the images as stretches, the top one first. They lie under
// the names 0, 1, 2 and so on; a trailer that names the next one links the chain. One wish repairs the digests that the
// trailers pin, which no mutation would ever find.
#include <cstring>

#include "fuzz_world.h"

#include "crypto/sha256.h"
#include "image/chunk_retrieval.h"
#include "image/open_image.h"

using namespace vornix;
using namespace vornix::fuzz;

namespace {

// Reading chunks larger than this only costs time.
constexpr uint32_t largestChunkRead = 1 << 20;

void PinDigest(Bytes& image, const Bytes& base) {
    ImageHeader header;
    if (base.size() < sizeof(header) || image.size() < thinTrailerFrame) {
        return;
    }
    std::memcpy(&header, base.data(), sizeof(header));
    if (header.ChunkCount > base.size() / sizeof(ChunkRecord) || ChunkDataStart(header.ChunkCount) > base.size()) {
        return;
    }
    ComputeSha256(base.data(), ChunkDataStart(header.ChunkCount),
                  image.data() + image.size() - sizeof(ThinTrailerTail));
}

void CheckOpened(const OpenImage& image, uint64_t fileSize) {
    if (image.Chunks.size() != image.Header.ChunkCount || image.ChunkOffsets.size() != image.Header.ChunkCount) {
        ReportBroken("an opened image has a record and an offset for each chunk");
    }
    if ((image.Key != nullptr) != (image.Header.Encrypted == 1)) {
        ReportBroken("an opened image has a key exactly when it is sealed");
    }
    if ((image.Base != nullptr) != (image.Header.Version == thinImageVersion)) {
        ReportBroken("an opened image has a base exactly when it is thin");
    }
    for (size_t i = 0; i < image.Chunks.size(); ++i) {
        if (image.ChunkOffsets[i] + image.Chunks[i].StoredLength > fileSize) {
            ReportBroken("every stored chunk of an opened image lies in its file");
        }
    }
    if (PositionOf(image.File) != image.ChunkOffsets[0]) {
        ReportBroken("an opened image stands on its first stored byte");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetWorld();
    Input input(data, size);
    const uint64_t wishes = input.TakeNumber(1);
    const uint64_t count = input.TakeNumber(1) % 4 + 1;
    std::vector<Bytes> images;
    for (uint64_t i = 0; i < count; ++i) {
        images.push_back(input.TakeStretch());
    }
    for (size_t i = images.size() - 1; (wishes & 1) != 0 && i-- > 0;) {
        PinDigest(images[i], images[i + 1]);
    }
    for (size_t i = 0; i < images.size(); ++i) {
        TheWorld().Files[std::to_string(i)] = images[i];
    }
    TheWorld().PasswordFile = {'p', 'w', '\n'};

    SurvivesFatal([&] {
        OpenImage image = OpenImageFile("0", (wishes & 2) != 0 ? "" : "password", 0);
        CheckOpened(image, images[0].size());
        if (image.Header.ChunkSize > largestChunkRead) {
            return;
        }
        Bytes plain(image.Header.ChunkSize);
        for (size_t i = 0; i < image.Chunks.size(); ++i) {
            const uint64_t before = PositionOf(image.File);
            ReadChunkPlain(image, i, plain.data());
            if (image.Chunks[i].StoredLength == 0 && PositionOf(image.File) != before) {
                ReportBroken("reading a thin reference leaves the image's own file position alone");
            }
        }
    });
    return 0;
}
