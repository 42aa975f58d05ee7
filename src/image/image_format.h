// The records of an image file, byte for byte, and the limits that a reader insists on. docs/image-format.md tells the
// format as a whole; what is written and read, and in which order, stands with the writers and readers.
//
// The regions of a file follow each other with nothing between them: header, chunk table, chunk data and, in a thin
// image, the trailer. All integers are little-endian; both builds run on little-endian machines alone.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vornix {

using Sha256Digest = std::array<uint8_t, 32>;

constexpr std::array<char, 8> imageMagic = {'V', 'R', 'N', 'X', 'D', 'S', 'K', '2'};
constexpr std::array<char, 8> thinTrailerMagic = {'V', 'R', 'N', 'X', 'B', 'A', 'S', 'E'};

constexpr uint32_t fullImageVersion = 2;
constexpr uint32_t thinImageVersion = 3;

constexpr uint32_t smallestSectorSize = 512;
constexpr uint32_t largestChunkSize = 0x4000000;
// 72 bytes times this many chunks is the largest table below 256 MiB, which one 32-bit read takes.
constexpr uint64_t largestChunkCount = 3728270;

constexpr uint32_t lowestKdfIterations = 100000;
constexpr uint32_t highestKdfIterations = 10000000;
constexpr uint32_t writtenKdfIterations = 200000;

// How deep below the top image a base may lie: 65 images in a chain.
constexpr int deepestBase = 64;

#pragma pack(push, 1)

struct ImageHeader {
    std::array<char, 8> Magic;    //  0
    uint32_t Version;             //  8  2 full, 3 thin
    uint64_t DiskSize;            // 12  bytes of the source disk
    uint32_t SectorSize;          // 20  bytes per sector of the source disk
    uint32_t ChunkSize;           // 24  bytes of disk per chunk
    uint64_t ChunkCount;          // 28
    uint8_t Encrypted;            // 36  1 when the chunks are sealed
    std::array<uint8_t, 7> Epoch; // 37  low 56 bits of the tracker's epoch, least significant first; 0 is none
    std::array<uint8_t, 16> Salt; // 44  of the key derivation; zero in a plain image
    uint32_t KdfIterations;       // 60  zero in a plain image
};

struct ChunkRecord {
    uint64_t DiskOffset;           //  0  of the chunk on the source disk
    uint32_t StoredLength;         //  8  bytes in this file's chunk data; 0 is a thin reference
    Sha256Digest Hash;             // 12  SHA-256 (FIPS 180-4) of the plain bytes
    std::array<uint8_t, 12> Nonce; // 44  AES-GCM nonce; zero in a plain image and in a thin reference
    std::array<uint8_t, 16> Tag;   // 56  AES-GCM tag; likewise
};

// The thin trailer is this head, NameLength bytes of the base image's file name, and the tail.
struct ThinTrailerHead {
    std::array<char, 8> Magic; //  0
    uint32_t NameLength;       //  8
};

struct ThinTrailerTail {
    Sha256Digest BaseDigest; // 12 + NameLength
    uint32_t TotalLength;    // 44 + NameLength  of the whole trailer, found from the end of the file
};

#pragma pack(pop)

static_assert(sizeof(ImageHeader) == 64);
static_assert(offsetof(ImageHeader, Magic) == 0);
static_assert(offsetof(ImageHeader, Version) == 8);
static_assert(offsetof(ImageHeader, DiskSize) == 12);
static_assert(offsetof(ImageHeader, SectorSize) == 20);
static_assert(offsetof(ImageHeader, ChunkSize) == 24);
static_assert(offsetof(ImageHeader, ChunkCount) == 28);
static_assert(offsetof(ImageHeader, Encrypted) == 36);
static_assert(offsetof(ImageHeader, Epoch) == 37);
static_assert(offsetof(ImageHeader, Salt) == 44);
static_assert(offsetof(ImageHeader, KdfIterations) == 60);

static_assert(sizeof(ChunkRecord) == 72);
static_assert(offsetof(ChunkRecord, DiskOffset) == 0);
static_assert(offsetof(ChunkRecord, StoredLength) == 8);
static_assert(offsetof(ChunkRecord, Hash) == 12);
static_assert(offsetof(ChunkRecord, Nonce) == 44);
static_assert(offsetof(ChunkRecord, Tag) == 56);

static_assert(sizeof(ThinTrailerHead) == 12);
static_assert(offsetof(ThinTrailerHead, NameLength) == 8);
static_assert(sizeof(ThinTrailerTail) == 36);
static_assert(offsetof(ThinTrailerTail, TotalLength) == 32);

// Bytes of a trailer besides the name, which is the smallest TotalLength that a reader looks at.
constexpr uint32_t thinTrailerFrame = sizeof(ThinTrailerHead) + sizeof(ThinTrailerTail);
constexpr uint32_t largestThinTrailer = 4096;
static_assert(thinTrailerFrame == 48);

// File offset of the chunk data, which is the length of header and table together.
constexpr uint64_t ChunkDataStart(uint64_t chunkCount) {
    return sizeof(ImageHeader) + sizeof(ChunkRecord) * chunkCount;
}

// Bytes of disk that chunk `index` covers: only the last chunk can be shorter than the others.
constexpr uint32_t PlainLengthOfChunk(uint64_t diskSize, uint32_t chunkSize, uint64_t index) {
    const uint64_t remaining = diskSize - index * chunkSize;
    return remaining < chunkSize ? static_cast<uint32_t>(remaining) : chunkSize;
}

} // namespace vornix
