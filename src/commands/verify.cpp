// The verify command.
#include "commands/verify.h"

#include <windows.h>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "disk/aligned_buffer.h"
#include "image/chunk_retrieval.h"
#include "image/open_image.h"
#include "image/stored_chunk.h"

namespace vornix {

namespace {

constexpr uint64_t readBufferAlignment = 64;

// Judges the next stored chunk of the image, read in sequence without a seek, and names a bad one.
ChunkVerdict CheckNextStoredChunk(const OpenImage& image, uint64_t index, uint8_t* readBuffer, uint8_t* plainBuffer) {
    const ChunkVerdict verdict = ReadStoredChunk(image, index, readBuffer, plainBuffer, HashCheck::EveryChunk).Verdict;
    const auto diskOffset = static_cast<unsigned long long>(image.Chunks[index].DiskOffset);
    switch (verdict) {
    case ChunkVerdict::Unreadable:
        Fatal("could not read chunk data - image is truncated", 0);
    case ChunkVerdict::AuthenticationFailed:
        std::printf("\n  chunk %zu (disk offset %llu): AUTHENTICATION FAILED (corrupt or tampered)\n",
                    static_cast<size_t>(index), diskOffset);
        break;
    case ChunkVerdict::HashMismatch:
        std::printf("\n  chunk %zu (disk offset %llu): HASH MISMATCH\n", static_cast<size_t>(index), diskOffset);
        break;
    case ChunkVerdict::Good:
        break;
    }
    return verdict;
}

} // namespace

void VerifyImage(const std::string& inPath, const std::string& passwordFile) {
    const OpenImage image = OpenImageFile(inPath, passwordFile, 0);
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
        ChunkVerdict verdict = ChunkVerdict::Good;
        if (image.Chunks[i].StoredLength == 0) {
            ReadChunkPlain(image, i, plainBuffer.data());
        } else {
            verdict = CheckNextStoredChunk(image, i, readBuffer.data(), plainBuffer.data());
        }
        failures += verdict == ChunkVerdict::Good ? 0 : 1;
        // A chunk that did not authenticate goes without the meter, one with the wrong hash does not.
        if (verdict != ChunkVerdict::AuthenticationFailed && IsProgressDue(i, chunkCount)) {
            PrintProgress(image.EndOnDisk(i), image.Header.DiskSize, startTicks);
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
