// The one writer of image files: chunk after chunk behind a space left for header and table, and these two at the very
// end. Until then the file begins with zeros and is no image to any reader.
#pragma once

#include <windows.h>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "crypto/chunk_key.h"
#include "image/image_format.h"
#include "image/thin_trailer.h"

namespace vornix {

// Makes `header` that of a sealed image, with a fresh salt, and derives its key from the password file. Ends the
// process where any of it fails.
ChunkKey SealImage(ImageHeader& header, const std::string& passwordFilePath);

// Writes one image: all its chunks, first to last, the trailer of a thin one, and Finish. Ends the process where a
// write of chunk data fails, with the words that the command has for it.
class ImageWriter {
public:
    // `file` is new and empty; it belongs to the caller until Finish closes it. `header` and `key`, which is empty for
    // a plain image, outlive the writer.
    ImageWriter(HANDLE file, const ImageHeader& header, const std::optional<ChunkKey>& key, const char* writeFailure);

    // Stores the next chunk, whose plain bytes have that hash; of a sealed image by way of `sealed`, which has room for
    // a chunk.
    void AddChunk(const Sha256Digest& hash, const uint8_t* plain, uint8_t* sealed);

    // Makes the next chunk a thin reference to the same chunk of the base.
    void AddReference(const Sha256Digest& hash);

    // Writes the trailer behind the last chunk of a thin image.
    void AddTrailer(const ThinTrailer& trailer);

    // Writes header and table, which turns the file into an image, and closes it.
    void Finish();

private:
    ChunkRecord& AddRecord(const Sha256Digest& hash);

    HANDLE file_;
    const ImageHeader& header_;
    const std::optional<ChunkKey>& key_;
    const char* writeFailure_;
    std::vector<ChunkRecord> table_;
};

} // namespace vornix
