// The records of an image file, taken out of its bytes, and the limits, as docs/image-format.md has them. It is not for
// judging them.
#pragma once

#include "port.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vrnx {

constexpr size_t headerSize = 64;
constexpr size_t recordSize = 72;
constexpr size_t trailerSize = 48; // without the name
constexpr size_t maxTrailerSize = 4096;
constexpr uint32_t minSectorSize = 512;
constexpr uint32_t maxChunkSize = 0x4000000;
constexpr uint64_t maxChunkCount = 3728270;
constexpr uint32_t minIterations = 100000;
constexpr uint32_t maxIterations = 10000000;
constexpr size_t maxChain = 65;
constexpr size_t maxPassword = 1048576;
constexpr char headerMagic[] = "VRNXDSK2";
constexpr char trailerMagic[] = "VRNXBASE";
constexpr size_t magicSize = 8;

// An unsigned little-endian integer of `size` bytes, at most 8.
inline uint64_t LoadInteger(const uint8_t* bytes, size_t size) {
    uint64_t value = 0;
    if constexpr (std::endian::native == std::endian::little) {
        memcpy(&value, bytes, size); // tables have millions of them
    } else {
        for (size_t i = size; i-- > 0;) {
            value = value << 8 | bytes[i];
        }
    }
    return value;
}

inline uint32_t LoadU32(const uint8_t* bytes) {
    return static_cast<uint32_t>(LoadInteger(bytes, 4));
}

struct Header {
    explicit Header(const uint8_t* bytes)
        : version(LoadU32(bytes + 8)), diskSize(LoadInteger(bytes + 12, 8)), sectorSize(LoadU32(bytes + 20)),
          chunkSize(LoadU32(bytes + 24)), chunkCount(LoadInteger(bytes + 28, 8)), encrypted(bytes[36]),
          epoch(LoadInteger(bytes + 37, 7)), kdfIterations(LoadU32(bytes + 60)) {
        for (size_t i = 0; i < saltSize; i++) {
            salt[i] = bytes[44 + i];
        }
    }
    Header() = default;

    uint32_t version = 0;
    uint64_t diskSize = 0;
    uint32_t sectorSize = 0;
    uint32_t chunkSize = 0;
    uint64_t chunkCount = 0;
    uint8_t encrypted = 0;
    uint64_t epoch = 0;
    uint8_t salt[saltSize] = {};
    uint32_t kdfIterations = 0;
};

// A record of the chunk table, where it lies.
struct Record {
    const uint8_t* bytes;

    uint64_t DiskOffset() const { return LoadInteger(bytes, 8); }
    uint32_t StoredLength() const { return LoadU32(bytes + 8); }
    const uint8_t* Hash() const { return bytes + 12; }
    const uint8_t* Nonce() const { return bytes + 44; }
    const uint8_t* Tag() const { return bytes + 56; }
};

} // namespace vrnx
