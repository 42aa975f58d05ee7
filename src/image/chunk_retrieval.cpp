// Retrieval of single chunks.
#include "image/chunk_retrieval.h"

#include <cstring>
#include <vector>

#include "cli/fatal.h"
#include "crypto/sha256.h"
#include "disk/transfers.h"

namespace vornix {

namespace {

void ReadStoredChunk(OpenImage& image, uint64_t index, uint32_t plainLength, uint8_t* dest) {
    const ChunkRecord& record = image.Chunks[index];
    std::vector<uint8_t> stored(record.StoredLength);
    if (!MoveFilePointer(image.File, image.ChunkOffsets[index]) ||
        !ReadWhole(image.File, stored.data(), record.StoredLength)) {
        Fatal("could not read chunk data from image (truncated?)", 0);
    }
    if (image.Header.Encrypted == 0) {
        std::memcpy(dest, stored.data(), plainLength);
    } else if (!UnsealChunk(*image.Key, stored.data(), plainLength, record.Nonce.data(), record.Tag.data(), dest)) {
        Fatal("chunk failed authentication (corrupt or tampered image)", 0);
    }
}

} // namespace

void ReadChunkPlain(OpenImage& image, uint64_t index, uint8_t* dest) {
    const ChunkRecord& record = image.Chunks[index];
    const uint32_t plainLength = image.PlainLength(index);
    if (record.StoredLength != 0) {
        ReadStoredChunk(image, index, plainLength, dest);
    } else if (image.Base == nullptr) {
        Fatal("image has a thin chunk but no base image", 0); // an open has refused this already; a guard alone
    } else {
        ReadChunkPlain(*image.Base, index, dest);
    }
    // At every level, so that each record vouches for the bytes independently of what lies below it.
    Sha256Digest hash;
    ComputeSha256(dest, plainLength, hash.data());
    if (hash != record.Hash) {
        Fatal("chunk failed its hash check (corrupt image or base)", 0);
    }
}

} // namespace vornix
