// Random bytes through CNG.
#include "crypto/random_bytes.h"

#include <windows.h>

#include <bcrypt.h>

#include "cli/fatal.h"

namespace vornix {

void FillRandomBytes(void* buffer, uint64_t count) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    const NTSTATUS opened = BCryptOpenAlgorithmProvider(&provider, BCRYPT_RNG_ALGORITHM, nullptr, 0);
    if (opened < 0) {
        Fatal("BCryptOpenAlgorithmProvider(RNG)", opened);
    }
    const NTSTATUS generated = BCryptGenRandom(provider, static_cast<PUCHAR>(buffer), static_cast<ULONG>(count), 0);
    if (generated < 0) {
        Fatal("BCryptGenRandom", generated);
    }
    BCryptCloseAlgorithmProvider(provider, 0); // unexamined: the bytes are drawn
}

} // namespace vornix
