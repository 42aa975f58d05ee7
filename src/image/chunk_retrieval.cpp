// Retrieval of single chunks.
#include "image/chunk_retrieval.h"

#include <cstring>
#include <vector>

#include "cli/fatal.h"
#include "disk/transfers.h"
#include "image/stored_chunk.h"

namespace vornix {

namespace {

// A chunk of this image itself, from wherever in the file it lies.
ChunkVerdict ReadOwnChunk(const OpenImage& image, uint64_t index, uint8_t* dest) {
    std::vector<uint8_t> stored(image.Chunks[index].StoredLength);
    if (!MoveFilePointer(image.File, image.ChunkOffsets[index])) {
        return ChunkVerdict::Unreadable;
    }
    const StoredChunk chunk = ReadStoredChunk(image, index, stored.data(), dest, HashCheck::EveryChunk);
    if (chunk.Plain == stored.data()) {
        std::memcpy(dest, stored.data(), image.PlainLength(index));
    }
    return chunk.Verdict;
}

// A chunk of the base, compared with this image's record as well, so that each record of a chain vouches for the bytes
// independently of what lies below it.
ChunkVerdict FollowReference(const OpenImage& image, uint64_t index, uint8_t* dest) {
    if (image.Base == nullptr) {
        Fatal("image has a thin chunk but no base image", 0); // an open has refused this already; a guard alone
    }
    ReadChunkPlain(*image.Base, index, dest);
    return CompareHash(image, index, dest);
}

} // namespace

void ReadChunkPlain(const OpenImage& image, uint64_t index, uint8_t* dest) {
    const bool isReference = image.Chunks[index].StoredLength == 0;
    switch (isReference ? FollowReference(image, index, dest) : ReadOwnChunk(image, index, dest)) {
    case ChunkVerdict::Unreadable:
        Fatal("could not read chunk data from image (truncated?)", 0);
    case ChunkVerdict::AuthenticationFailed:
        Fatal("chunk failed authentication (corrupt or tampered image)", 0);
    case ChunkVerdict::HashMismatch:
        Fatal("chunk failed its hash check (corrupt image or base)", 0);
    case ChunkVerdict::Good:
        break;
    }
}

} // namespace vornix
