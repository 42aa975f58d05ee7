// Overwriting of secrets that are not read again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vornix {

// Overwrites `length` bytes with zeros, one at a time. Each store is a side effect of its own, so that no optimiser
// takes it for one that nobody reads.
inline void WipeBytes(void* secret, size_t length) {
    volatile uint8_t* bytes = static_cast<volatile uint8_t*>(secret);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = 0;
    }
}

// Overwrites a string's bytes up to its length; the string keeps its length and storage.
inline void WipeString(std::string& secret) {
    WipeBytes(secret.data(), secret.size());
}

} // namespace vornix
