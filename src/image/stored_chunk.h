// The one reader of chunks that are stored in an image itself. It gives a verdict; what follows from it, and in which
// words, is the business of each command.
#pragma once

#include <cstdint>

#include "image/open_image.h"

namespace vornix {

enum class ChunkVerdict {
    Good,
    Unreadable,           // the file ended or failed
    AuthenticationFailed, // sealed bytes and tag do not belong together under this key
    HashMismatch,         // the plain bytes are not those that the record stands for
};

// Which chunks are compared with the hash in their record: a sealed one has a tag as well.
enum class HashCheck {
    EveryChunk,
    PlainImagesOnly
};

struct StoredChunk {
    ChunkVerdict Verdict;
    const uint8_t* Plain; // where its plain bytes lie, once they are known
};

// Reads chunk `index` at the file pointer of the image, which has to stand there, into `stored`, and of a sealed image
// opens it into `plain`. Both have room for a chunk.
StoredChunk ReadStoredChunk(const OpenImage& image, uint64_t index, uint8_t* stored, uint8_t* plain, HashCheck check);

// Compares the plain bytes of chunk `index`, wherever they came from, with the hash in the image's own record.
ChunkVerdict CompareHash(const OpenImage& image, uint64_t index, const uint8_t* plain);

} // namespace vornix
