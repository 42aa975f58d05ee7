// Key derivation through CNG.
#include "crypto/key_derivation.h"

#include <array>

#include "crypto/cng.h"
#include "crypto/password_file.h"
#include "crypto/secure_wipe.h"

namespace vornix {

void DeriveKey(const std::string& password, const uint8_t* salt, uint32_t iterations, uint8_t* key) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    CheckStatus(BCryptOpenAlgorithmProvider(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, BCRYPT_ALG_HANDLE_HMAC_FLAG),
                "BCryptOpenAlgorithmProvider(HMAC-SHA256)");
    CheckStatus(BCryptDeriveKeyPBKDF2(provider, AsInput(password.data()), static_cast<ULONG>(password.size()),
                                      AsInput(salt), saltLength, iterations, key, derivedKeyLength, 0),
                "BCryptDeriveKeyPBKDF2");
    BCryptCloseAlgorithmProvider(provider, 0);
}

ChunkKey DeriveChunkKey(const std::string& passwordFilePath, const uint8_t* salt, uint32_t iterations) {
    std::string password = ReadPasswordFile(passwordFilePath);
    std::array<uint8_t, derivedKeyLength> derived;
    DeriveKey(password, salt, iterations, derived.data());
    ChunkKey key(derived.data());
    WipeBytes(derived.data(), derived.size());
    WipeString(password);
    return key;
}

} // namespace vornix
