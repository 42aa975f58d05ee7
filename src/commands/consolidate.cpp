// The consolidate command.
#include "commands/consolidate.h"

#include <windows.h>
#include <cstdio>
#include <optional>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "commands/verify.h"
#include "image/chunk_retrieval.h"
#include "image/image_writer.h"
#include "image/open_image.h"
#include "image/paths.h"

namespace vornix {

namespace {

void CheckPaths(const std::string& inPath, const std::string& outPath) {
    const std::optional<std::string> absoluteIn = ResolvePath(inPath);
    const std::optional<std::string> absoluteOut = absoluteIn ? ResolvePath(outPath) : std::nullopt;
    if (!absoluteOut) {
        Fatal("could not resolve image paths", 0);
    }
    if (IsSamePath(*absoluteIn, *absoluteOut)) {
        Fatal("--out must differ from --in", 0);
    }
    if (PathExists(*absoluteOut)) {
        Fatal("--out already exists - refusing to overwrite an image", 0);
    }
}

// A full, plain image of the same disk in the same chunks. It carries no epoch: what the tracker committed belongs to
// the image that was captured, not to one that was folded later.
ImageHeader BuildHeader(const ImageHeader& input) {
    ImageHeader header{};
    header.Magic = input.Magic;
    header.Version = fullImageVersion;
    header.DiskSize = input.DiskSize;
    header.SectorSize = input.SectorSize;
    header.ChunkSize = input.ChunkSize;
    header.ChunkCount = input.ChunkCount;
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

} // namespace

void ConsolidateImage(const ConsolidateOptions& options) {
    CheckPaths(options.inPath, options.outPath);
    const OpenImage input = OpenImageFile(options.inPath, options.passwordFile, 0);
    ImageHeader header = BuildHeader(input.Header);
    std::optional<ChunkKey> key;
    if (options.encrypt) {
        if (options.passwordFile.empty()) {
            Fatal("--encrypt needs --password-file", 0);
        }
        key = SealImage(header, options.passwordFile);
    }

    const HANDLE file = CreateOutputFile(options.outPath);
    ImageWriter output(file, header, key, "WriteFile failed while consolidating (disk full?)");
    std::vector<uint8_t> plainBuffer(header.ChunkSize);
    std::vector<uint8_t> sealedBuffer(header.ChunkSize);
    const uint64_t startTicks = GetTickCount64();
    for (size_t i = 0; i < input.Chunks.size(); ++i) {
        ReadChunkPlain(input, i, plainBuffer.data());
        // The hash is the one that the bytes were just proved against.
        output.AddChunk(input.Chunks[i].Hash, plainBuffer.data(), sealedBuffer.data());
        if (IsProgressDue(i, input.Chunks.size())) {
            PrintProgress(input.EndOnDisk(i), header.DiskSize, startTicks);
        }
    }
    std::printf("\n");
    output.Finish();
    CloseHandle(input.File);

    std::printf("Consolidated: %s (self-contained full image, verifying...)\n", options.outPath.c_str());
    VerifyImage(options.outPath, options.encrypt ? options.passwordFile : std::string());
}

} // namespace vornix
