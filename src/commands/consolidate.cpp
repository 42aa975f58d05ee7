// The consolidate command.
#include "commands/consolidate.h"

#include <windows.h>
#include <cstdio>
#include <optional>
#include <string.h>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "commands/verify.h"
#include "crypto/key_derivation.h"
#include "crypto/random_bytes.h"
#include "disk/transfers.h"
#include "image/chunk_retrieval.h"
#include "image/open_image.h"
#include "image/paths.h"

namespace vornix {

namespace {

void CheckPaths(const std::string& inPath, const std::string& outPath) {
    std::string absoluteIn;
    std::string absoluteOut;
    if (!ResolvePath(inPath, absoluteIn) || !ResolvePath(outPath, absoluteOut)) {
        Fatal("could not resolve image paths", 0);
    }
    if (_stricmp(absoluteIn.c_str(), absoluteOut.c_str()) == 0) {
        Fatal("--out must differ from --in", 0);
    }
    if (PathExists(absoluteOut)) {
        Fatal("--out already exists - refusing to overwrite an image", 0);
    }
}

// A full image of the same disk in the same chunks. It carries no epoch: what the tracker committed belongs to the
// image that was captured, not to one that was folded later.
ImageHeader BuildHeader(const ImageHeader& input, bool encrypt) {
    ImageHeader header{};
    header.Magic = input.Magic;
    header.Version = fullImageVersion;
    header.DiskSize = input.DiskSize;
    header.SectorSize = input.SectorSize;
    header.ChunkSize = input.ChunkSize;
    header.ChunkCount = input.ChunkCount;
    header.Encrypted = encrypt ? 1 : 0;
    return header;
}

HANDLE CreateOutputFile(const std::string& outPath) {
    // Under its final name at once: its first bytes stay zero until the end, so that it passes for no image before.
    const HANDLE file =
        CreateFileW(WidenPath(outPath).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        Fatal("could not create output image file", 0);
    }
    return file;
}

// Copies one chunk through the chain into the output and gives its record.
ChunkRecord FoldChunk(OpenImage& input, size_t index, const std::optional<ChunkKey>& key, HANDLE output,
                      std::vector<uint8_t>& plainBuffer, std::vector<uint8_t>& sealedBuffer) {
    const uint32_t length = input.PlainLength(index);
    ReadChunkPlain(input, index, plainBuffer.data());
    ChunkRecord record{};
    record.DiskOffset = input.Chunks[index].DiskOffset;
    record.StoredLength = length;
    record.Hash = input.Chunks[index].Hash; // which the bytes were just proved against
    const uint8_t* stored = plainBuffer.data();
    if (key.has_value()) {
        FillRandomBytes(record.Nonce.data(), record.Nonce.size());
        SealChunk(*key, plainBuffer.data(), length, record.Nonce.data(), sealedBuffer.data(), record.Tag.data());
        stored = sealedBuffer.data();
    }
    if (!WriteWhole(output, stored, length)) {
        Fatal("WriteFile failed while consolidating (disk full?)", 0);
    }
    return record;
}

} // namespace

void ConsolidateImage(const std::string& inPath, const std::string& outPath, const std::string& passwordFile,
                      bool encrypt) {
    CheckPaths(inPath, outPath);
    OpenImage input = OpenImageFile(inPath, passwordFile, 0);
    ImageHeader header = BuildHeader(input.Header, encrypt);
    std::optional<ChunkKey> key;
    if (encrypt) {
        if (passwordFile.empty()) {
            Fatal("--encrypt needs --password-file", 0);
        }
        FillRandomBytes(header.Salt.data(), header.Salt.size());
        header.KdfIterations = writtenKdfIterations;
        key.emplace(DeriveChunkKey(passwordFile, header.Salt.data(), header.KdfIterations));
    }

    const HANDLE output = CreateOutputFile(outPath);
    std::vector<ChunkRecord> table(input.Chunks.size());
    // Header and table are only reserved. Unexamined, like the writes that complete them: the verification at the end
    // reads everything back.
    MoveFilePointer(output, ChunkDataStart(table.size()));
    std::vector<uint8_t> plainBuffer(header.ChunkSize);
    std::vector<uint8_t> sealedBuffer(header.ChunkSize);
    const uint64_t startTicks = GetTickCount64();
    for (size_t i = 0; i < table.size(); ++i) {
        table[i] = FoldChunk(input, i, key, output, plainBuffer, sealedBuffer);
        if (IsProgressDue(i, table.size())) {
            PrintProgress(table[i].DiskOffset + table[i].StoredLength, header.DiskSize, startTicks);
        }
    }
    std::printf("\n");
    MoveFilePointer(output, 0);
    WriteWhole(output, &header, sizeof(header));
    WriteWhole(output, table.data(), static_cast<uint32_t>(sizeof(ChunkRecord) * table.size()));
    CloseHandle(output);
    CloseHandle(input.File);

    std::printf("Consolidated: %s (self-contained full image, verifying...)\n", outPath.c_str());
    VerifyImage(outPath, encrypt ? passwordFile : std::string());
}

} // namespace vornix
