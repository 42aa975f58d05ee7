// The plain bytes of one chunk, proved, wherever in a chain they lie.
#pragma once

#include <cstdint>

#include "image/open_image.h"

namespace vornix {

// Puts the plain bytes of chunk `index` into `dest`, which has room for a whole chunk, and proves them against the hash
// in the image's own record. A shorter last chunk leaves the rest of `dest` as it was. `index` is not range-checked.
//
// A thin reference is followed down the chain, with all checks at each level on the way up, and moves the file pointers
// of base images alone: whoever reads the top image in sequence is not disturbed. Any failure ends the process.
void ReadChunkPlain(const OpenImage& image, uint64_t index, uint8_t* dest);

} // namespace vornix
