// Random bytes through CNG.
#include "crypto/random_bytes.h"

#include "crypto/cng.h"

namespace vornix {

void FillRandomBytes(void* buffer, uint64_t count) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    CheckStatus(BCryptOpenAlgorithmProvider(&provider, BCRYPT_RNG_ALGORITHM, nullptr, 0),
                "BCryptOpenAlgorithmProvider(RNG)");
    CheckStatus(BCryptGenRandom(provider, static_cast<PUCHAR>(buffer), static_cast<ULONG>(count), 0),
                "BCryptGenRandom");
    BCryptCloseAlgorithmProvider(provider, 0); // unexamined: the bytes are drawn
}

} // namespace vornix
