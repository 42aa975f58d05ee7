// From a password to the key of one image.
#pragma once

#include <cstdint>
#include <string>

#include "crypto/chunk_key.h"

namespace vornix {

constexpr uint32_t saltLength = 16;
constexpr uint32_t derivedKeyLength = 32;

// Puts 32 bytes of PBKDF2 (RFC 8018) with HMAC-SHA256 into `key`, from the password's raw bytes and the 16 bytes at
// `salt`. The caller wipes the key. Ends the process where the platform fails.
void DeriveKey(const std::string& password, const uint8_t* salt, uint32_t iterations, uint8_t* key);

// Reads the password file and makes the key of an image with these 16 bytes of salt. The password and the derived bytes
// are overwritten before it returns. Ends the process where any of it fails.
ChunkKey DeriveChunkKey(const std::string& passwordFilePath, const uint8_t* salt, uint32_t iterations);

} // namespace vornix
