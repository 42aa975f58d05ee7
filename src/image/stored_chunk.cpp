// Reading of stored chunks.
#include "image/stored_chunk.h"

#include "crypto/sha256.h"
#include "disk/transfers.h"

namespace vornix {

StoredChunk ReadStoredChunk(const OpenImage& image, uint64_t index, uint8_t* stored, uint8_t* plain, HashCheck check) {
    const ChunkRecord& record = image.Chunks[index];
    if (!ReadWhole(image.File, stored, record.StoredLength)) {
        return {ChunkVerdict::Unreadable, nullptr};
    }
    if (image.Key == nullptr) {
        return {CompareHash(image, index, stored), stored};
    }
    if (!UnsealChunk(*image.Key, stored, record.StoredLength, record.Nonce.data(), record.Tag.data(), plain)) {
        return {ChunkVerdict::AuthenticationFailed, nullptr};
    }
    return {check == HashCheck::EveryChunk ? CompareHash(image, index, plain) : ChunkVerdict::Good, plain};
}

ChunkVerdict CompareHash(const OpenImage& image, uint64_t index, const uint8_t* plain) {
    Sha256Digest hash{}; // where the digest cannot be had, no stale bytes pass for it
    ComputeSha256(plain, image.PlainLength(index), hash.data());
    return hash == image.Chunks[index].Hash ? ChunkVerdict::Good : ChunkVerdict::HashMismatch;
}

} // namespace vornix
