// Key derivation through CNG.
#include "crypto/key_derivation.h"

#include <windows.h>
#include <array>

#include <bcrypt.h>

#include "cli/fatal.h"
#include "crypto/password_file.h"
#include "crypto/secure_wipe.h"

namespace vornix {

namespace {

// CNG takes its inputs as pointers to non-const bytes and leaves them as they are.
PUCHAR AsInput(const void* bytes) {
    return static_cast<PUCHAR>(const_cast<void*>(bytes));
}

} // namespace

void DeriveKey(const std::string& password, const uint8_t* salt, uint32_t iterations, uint8_t* key) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    const NTSTATUS opened =
        BCryptOpenAlgorithmProvider(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    if (opened < 0) {
        Fatal("BCryptOpenAlgorithmProvider(HMAC-SHA256)", opened);
    }
    const NTSTATUS derived =
        BCryptDeriveKeyPBKDF2(provider, AsInput(password.data()), static_cast<ULONG>(password.size()), AsInput(salt),
                              saltLength, iterations, key, derivedKeyLength, 0);
    if (derived < 0) {
        Fatal("BCryptDeriveKeyPBKDF2", derived);
    }
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
