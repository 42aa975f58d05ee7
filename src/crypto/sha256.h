// SHA-256 (FIPS 180-4) of one stretch of memory.
#pragma once

#include <cstdint>

namespace vornix {

// Puts the 32 bytes of the digest of `count` bytes at `data` into `digest`. `count` fits 32 bits, as the largest
// inputs, a chunk and a whole chunk table, do. Each call opens, uses and closes everything it needs. Ends the process
// where the provider cannot be opened or the hash not be created.
void ComputeSha256(const void* data, uint64_t count, uint8_t* digest);

} // namespace vornix
