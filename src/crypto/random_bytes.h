// Random bytes for salts and nonces.
#pragma once

#include <cstdint>

namespace vornix {

// Fills `buffer` with `count` bytes, which fits 32 bits, from the system's generator. Nothing is kept from one call to
// the next. Ends the process where the generator cannot be had.
void FillRandomBytes(void* buffer, uint64_t count);

} // namespace vornix
