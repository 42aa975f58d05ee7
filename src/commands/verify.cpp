// The verify command.
#include "commands/verify.h"

#include <windows.h>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "crypto/sha256.h"
#include "disk/aligned_buffer.h"
#include "disk/transfers.h"
#include "image/chunk_retrieval.h"
#include "image/open_image.h"

namespace vornix {

namespace {

constexpr uint64_t readBufferAlignment = 64;

enum class ChunkVerdict {
    Good,
    HashMismatch,
    AuthenticationFailed,
};

// Judges the next stored chunk of the image, read in sequence without a seek.
ChunkVerdict CheckStoredChunk(const OpenImage& image, const ChunkRecord& record, uint8_t* readBuffer,
                              uint8_t* plainBuffer) {
    if (!ReadWhole(image.File, readBuffer, record.StoredLength)) {
        Fatal("could not read chunk data - image is truncated", 0);
    }
    const uint8_t* plain = readBuffer;
    if (image.Header.Encrypted == 1) {
        if (!UnsealChunk(*image.Key, readBuffer, record.StoredLength, record.Nonce.data(), record.Tag.data(),
                         plainBuffer)) {
            return ChunkVerdict::AuthenticationFailed;
        }
        plain = plainBuffer;
    }
    Sha256Digest hash;
    ComputeSha256(plain, record.StoredLength, hash.data());
    return hash == record.Hash ? ChunkVerdict::Good : ChunkVerdict::HashMismatch;
}

} // namespace

void VerifyImage(const std::string& inPath, const std::string& passwordFile) {
    OpenImage image = OpenImageFile(inPath, passwordFile, 0);
    const uint64_t chunkCount = image.Header.ChunkCount;
    std::printf("Verifying %s  (%llu chunks, %.2f GiB source disk)\n", inPath.c_str(),
                static_cast<unsigned long long>(chunkCount), BytesToGiB(image.Header.DiskSize));

    const AlignedBuffer readBuffer(image.Header.ChunkSize, readBufferAlignment);
    std::vector<uint8_t> plainBuffer(image.Header.ChunkSize);
    const uint64_t startTicks = GetTickCount64();
    if (image.Base != nullptr) {
        std::printf("  thin image: chain continues with %s\n", image.BaseName.c_str());
    }

    uint64_t failures = 0;
    for (size_t i = 0; i < chunkCount; ++i) {
        const ChunkRecord& record = image.Chunks[i];
        if (record.StoredLength == 0) {
            ReadChunkPlain(image, i, plainBuffer.data());
        } else {
            const ChunkVerdict verdict = CheckStoredChunk(image, record, readBuffer.data(), plainBuffer.data());
            if (verdict == ChunkVerdict::AuthenticationFailed) {
                std::printf("\n  chunk %zu (disk offset %llu): AUTHENTICATION FAILED (corrupt or tampered)\n", i,
                            static_cast<unsigned long long>(record.DiskOffset));
                ++failures;
                continue; // without the meter, which a chunk with the wrong hash does get
            }
            if (verdict == ChunkVerdict::HashMismatch) {
                std::printf("\n  chunk %zu (disk offset %llu): HASH MISMATCH\n", i,
                            static_cast<unsigned long long>(record.DiskOffset));
                ++failures;
            }
        }
        if (IsProgressDue(i, chunkCount)) {
            PrintProgress(record.DiskOffset + image.PlainLength(i), image.Header.DiskSize, startTicks);
        }
    }
    std::printf("\n");
    CloseHandle(image.File);

    if (failures != 0) {
        std::fprintf(stderr,
                     "Verify FAILED - %llu of %llu chunks did not match. Do not trust this image for restore.\n",
                     static_cast<unsigned long long>(failures), static_cast<unsigned long long>(chunkCount));
        std::exit(1);
    }
    std::printf("Verify OK - all %llu chunks match their recorded hash.\n",
                static_cast<unsigned long long>(chunkCount));
}

} // namespace vornix
