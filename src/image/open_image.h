// The one way to an image: opened, read and proved consistent as a whole chain before anything else is touched.
#pragma once

#include <windows.h>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "crypto/chunk_key.h"
#include "image/image_format.h"

namespace vornix {

// An opened, validated image. Moves and is never copied; a moved-from image holds nothing.
//
// It owns its memory, its key and its base, and so the whole chain below it, but not its file: `File` is closed by the
// command that opened the image, at the point of its run where it has finished with it, and the files of base images
// stay open until the process ends.
struct OpenImage {
    HANDLE File = INVALID_HANDLE_VALUE;
    ImageHeader Header{};
    std::vector<ChunkRecord> Chunks;
    std::unique_ptr<ChunkKey> Key; // present exactly when Header.Encrypted is 1
    Sha256Digest Digest{};         // of header and table as they stand in the file
    // For each chunk the file offset of its stored bytes; for a thin reference, where they would be.
    std::vector<uint64_t> ChunkOffsets;
    std::unique_ptr<OpenImage> Base; // null in a full image
    std::string BaseName;            // as stored in the trailer, without a folder; empty in a full image

    // Bytes of disk that chunk `index` covers.
    uint32_t PlainLength(uint64_t index) const { return PlainLengthOfChunk(Header.DiskSize, Header.ChunkSize, index); }

    // Disk offset just past chunk `index`.
    uint64_t EndOnDisk(uint64_t index) const { return Chunks[index].DiskOffset + PlainLength(index); }
};

// Opens the image at `path`, checks its header and table, computes its digest, derives the key of a sealed one from the
// password file and opens and proves the chain of bases of a thin one. The file pointer of `File` is left on the first
// byte of chunk data, from where the stored chunks can be read one behind the other without a seek.
//
// `passwordFilePath` may be empty and is not looked at for a plain image; the same file serves the whole chain.
// Commands pass a `depth` of 0. Any failure ends the process, with the message of the first check that the file does
// not pass. A wrong password is none: it shows only when the first sealed chunk is read.
OpenImage OpenImageFile(const std::string& path, const std::string& passwordFilePath, int depth);

} // namespace vornix
