// SHA-256 through CNG.
#include "crypto/sha256.h"

#include <vector>

#include "crypto/cng.h"

namespace vornix {

void ComputeSha256(const void* data, uint64_t count, uint8_t* digest) {
    constexpr ULONG digestLength = 32;

    BCRYPT_ALG_HANDLE provider = nullptr;
    CheckStatus(BCryptOpenAlgorithmProvider(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0),
                "BCryptOpenAlgorithmProvider(SHA256)");
    std::vector<UCHAR> object(GetObjectLength(provider)); // data() of an empty one is null
    BCRYPT_HASH_HANDLE hash = nullptr;
    CheckStatus(BCryptCreateHash(provider, &hash, object.data(), static_cast<ULONG>(object.size()), nullptr, 0, 0),
                "BCryptCreateHash");
    // The statuses from here on are left unexamined: with a hash created over a good buffer these calls have nothing to
    // fail on, and a digest that went wrong all the same is refused where it is compared.
    BCryptHashData(hash, AsInput(data), static_cast<ULONG>(count), 0);
    BCryptFinishHash(hash, digest, digestLength, 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
}

} // namespace vornix
