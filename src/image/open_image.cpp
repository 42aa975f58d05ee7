// Opening an image: the checks in the order that decides which message a damaged file produces.
#include "image/open_image.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <limits>

#include "cli/fatal.h"
#include "crypto/key_derivation.h"
#include "crypto/sha256.h"
#include "disk/transfers.h"
#include "image/paths.h"
#include "image/thin_trailer.h"

namespace vornix {

namespace {

HANDLE OpenFileOfImage(const std::string& path) {
    // Others may read the image meanwhile; a writer would change it underneath the checks.
    const HANDLE file = CreateFileW(WidenPath(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        std::fprintf(stderr, "could not open image file: %s\n", path.c_str());
        Fatal("could not open image file", 0);
    }
    return file;
}

void CheckMagicAndVersion(const ImageHeader& header) {
    if (header.Magic != imageMagic || (header.Version != fullImageVersion && header.Version != thinImageVersion)) {
        Fatal("not a recognized Vornix image (bad magic/version)", 0);
    }
}

void CheckGeometry(const ImageHeader& header) {
    const bool valid = header.DiskSize != 0 && header.SectorSize >= smallestSectorSize &&
                       std::has_single_bit(uint32_t{header.SectorSize}) && header.ChunkSize >= header.SectorSize &&
                       header.ChunkSize <= largestChunkSize && header.ChunkSize % header.SectorSize == 0;
    if (!valid) {
        Fatal("image header has invalid disk/sector/chunk geometry", 0);
    }
}

void CheckKeyParameters(const ImageHeader& header) {
    const bool validIterations = header.Encrypted == 1 ? header.KdfIterations >= lowestKdfIterations &&
                                                             header.KdfIterations <= highestKdfIterations
                                                       : header.KdfIterations == 0;
    if (header.Encrypted > 1 || !validIterations) {
        Fatal("image has invalid encryption/KDF parameters", 0);
    }
}

void CheckChunkCount(const ImageHeader& header) {
    if (header.ChunkCount != (header.DiskSize - 1) / header.ChunkSize + 1 || header.ChunkCount > largestChunkCount) {
        Fatal("image header has an impossible chunk count", 0);
    }
}

ImageHeader ReadCheckedHeader(HANDLE file) {
    ImageHeader header;
    if (!ReadWhole(file, &header, sizeof(header))) {
        Fatal("could not read image header - file is truncated or not a .vrnx image", 0);
    }
    CheckMagicAndVersion(header);
    CheckGeometry(header);
    CheckKeyParameters(header);
    CheckChunkCount(header);
    return header;
}

// The size in bytes of a file that has room for the table at least.
int64_t GetCheckedFileSize(const OpenImage& image) {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(image.File, &size) || size.QuadPart < 0 ||
        static_cast<uint64_t>(size.QuadPart) < ChunkDataStart(image.Header.ChunkCount)) {
        Fatal("image is truncated before its chunk table", 0);
    }
    return size.QuadPart;
}

void ReadChunkTable(OpenImage& image) {
    image.Chunks.resize(image.Header.ChunkCount);
    // The length fits 32 bits by the limit on the chunk count.
    const auto length = static_cast<uint32_t>(sizeof(ChunkRecord) * image.Chunks.size());
    if (!ReadWhole(image.File, image.Chunks.data(), length)) {
        Fatal("could not read chunk table - image is truncated", 0);
    }
}

Sha256Digest ComputeImageDigest(const OpenImage& image) {
    const size_t tableLength = sizeof(ChunkRecord) * image.Chunks.size();
    const size_t length = sizeof(ImageHeader) + tableLength;
    const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(length);
    std::memcpy(buffer.get(), &image.Header, sizeof(ImageHeader));
    std::memcpy(buffer.get() + sizeof(ImageHeader), image.Chunks.data(), tableLength);
    Sha256Digest digest{};
    ComputeSha256(buffer.get(), length, digest.data());
    return digest;
}

// Derives where each chunk lies in the file, proving every record on the way. Gives the end of the chunk data.
uint64_t LocateChunks(OpenImage& image) {
    const ImageHeader& header = image.Header;
    image.ChunkOffsets.resize(image.Chunks.size());
    uint64_t offset = ChunkDataStart(header.ChunkCount);
    for (uint64_t i = 0; i < header.ChunkCount; ++i) {
        const ChunkRecord& record = image.Chunks[i];
        const bool validLength = record.StoredLength == image.PlainLength(i) ||
                                 (record.StoredLength == 0 && header.Version == thinImageVersion);
        if (record.DiskOffset != i * header.ChunkSize || !validLength ||
            record.StoredLength > std::numeric_limits<uint64_t>::max() - offset) {
            Fatal("image chunk table has an invalid offset or length", 0);
        }
        image.ChunkOffsets[i] = offset;
        offset += record.StoredLength;
    }
    return offset;
}

// Opens the base that the trailer names and proves that it is the one this image was made against. Leaves the file
// pointer on the first byte of chunk data, where the trailer reads took it from.
void OpenChain(OpenImage& image, int64_t size, uint64_t dataEnd, const std::string& path,
               const std::string& passwordFilePath, int depth) {
    const ThinTrailer trailer = ReadThinTrailer(image.File, size, dataEnd);
    image.BaseName = trailer.BaseName;
    const std::string basePath = FindBaseImage(path, trailer);
    // A chain that loops back on itself never gets to the proof behind this line; the depth limit ends it.
    image.Base = std::make_unique<OpenImage>(OpenImageFile(basePath, passwordFilePath, depth + 1));
    ProveBaseImage(basePath, trailer, image.Base->Digest, image.Base->Header, image.Header);
    // Unexamined on purpose: a file pointer that did not move shows as bad chunks, which every reader proves anyway.
    MoveFilePointer(image.File, 0);
    MoveFilePointer(image.File, image.ChunkOffsets[0]);
}

} // namespace

OpenImage OpenImageFile(const std::string& path, const std::string& passwordFilePath, int depth) {
    if (depth > deepestBase) {
        Fatal("image chain is too deep (or loops back on itself)", 0);
    }
    OpenImage image;
    image.File = OpenFileOfImage(path);
    image.Header = ReadCheckedHeader(image.File);
    const int64_t size = GetCheckedFileSize(image);
    ReadChunkTable(image);
    image.Digest = ComputeImageDigest(image);
    const uint64_t dataEnd = LocateChunks(image);
    if (dataEnd > static_cast<uint64_t>(size)) {
        Fatal("image chunk data extends past end of file", 0);
    }
    if (image.Header.Encrypted == 1) {
        if (passwordFilePath.empty()) {
            Fatal("this image is encrypted - pass --password-file", 0);
        }
        image.Key = std::make_unique<ChunkKey>(
            DeriveChunkKey(passwordFilePath, image.Header.Salt.data(), image.Header.KdfIterations));
    }
    if (image.Header.Version == thinImageVersion) {
        OpenChain(image, size, dataEnd, path, passwordFilePath, depth);
    }
    return image;
}

} // namespace vornix
