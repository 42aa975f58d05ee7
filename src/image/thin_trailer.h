// The trailer of a thin image: what it says about the base, where that base is looked for, and the proof that a base
// is the right one. The walk down the chain itself is part of opening an image.
#pragma once

#include <windows.h>
#include <cstdint>
#include <string>
#include <vector>

#include "image/image_format.h"

namespace vornix {

struct ThinTrailer {
    std::string BaseName;    // a file name without a folder
    Sha256Digest BaseDigest; // image digest of the base
};

// Reads and checks the trailer at the end of an image file of `size` bytes whose chunk data ends at `dataEnd`. Moves
// the file pointer. Ends the process at the first thing that is not as it must be.
ThinTrailer ReadThinTrailer(HANDLE file, int64_t size, uint64_t dataEnd);

// The path of the base of the image at `imagePath`: in that image's folder, by the name in the trailer, and relative
// where `imagePath` is. Ends the process where the name would lead out of the folder or nothing is found there.
std::string FindBaseImage(const std::string& imagePath, const ThinTrailer& trailer);

// Ends the process unless the base that was opened from `basePath` is the one that the trailer pins, and of the same
// shape as the image over it. Sector sizes may differ.
void ProveBaseImage(const std::string& basePath, const ThinTrailer& trailer, const Sha256Digest& baseDigest,
                    const ImageHeader& base, const ImageHeader& image);

// The bytes of a trailer, for writing. `trailer.BaseName` is taken as it is.
std::vector<uint8_t> BuildThinTrailer(const ThinTrailer& trailer);

} // namespace vornix
