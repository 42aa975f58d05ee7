// The calls about providers and keys that are looked at, in front of the platform's own: the linker takes the name of a
// call for __wrap_<name>, and leaves its former owner as __real_<name>.
#include <windows.h>
// The header below needs the types of the one above.
#include <bcrypt.h>

#include "observed_calls.h"

namespace {

using vornix::observed::Current;
using vornix::observed::Observation;

void Record(const char* name, const void* object) {
    if (Observation* const observation = Current(); observation != nullptr) {
        observation->Calls.push_back({name, object});
    }
}

} // namespace

extern "C" {

// Both are of the type of the call that they stand for.
#define OBSERVED(call) decltype(call) __real_##call, __wrap_##call
OBSERVED(BCryptOpenAlgorithmProvider);
OBSERVED(BCryptCloseAlgorithmProvider);
OBSERVED(BCryptDeriveKeyPBKDF2);
OBSERVED(BCryptGenerateSymmetricKey);
OBSERVED(BCryptDestroyKey);
#undef OBSERVED

NTSTATUS WINAPI __wrap_BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR id, LPCWSTR implementation,
                                                   ULONG flags) {
    const NTSTATUS status = __real_BCryptOpenAlgorithmProvider(algorithm, id, implementation, flags);
    Record("BCryptOpenAlgorithmProvider", *algorithm);
    return status;
}

NTSTATUS WINAPI __wrap_BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags) {
    Record("BCryptCloseAlgorithmProvider", algorithm);
    return __real_BCryptCloseAlgorithmProvider(algorithm, flags);
}

NTSTATUS WINAPI __wrap_BCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                             ULONG saltLength, ULONGLONG iterations, PUCHAR key, ULONG keyLength,
                                             ULONG flags) {
    const NTSTATUS status = __real_BCryptDeriveKeyPBKDF2(prf, password, passwordLength, salt, saltLength, iterations,
                                                         key, keyLength, flags);
    if (Observation* const observation = Current(); observation != nullptr) {
        observation->Password = {password, passwordLength};
        observation->PasswordBytes = observation->Password.Bytes();
        observation->DerivedKey = {key, keyLength};
        observation->DerivedKeyBytes = observation->DerivedKey.Bytes();
    }
    return status;
}

NTSTATUS WINAPI __wrap_BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE* key, PUCHAR object,
                                                  ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags) {
    const NTSTATUS status =
        __real_BCryptGenerateSymmetricKey(algorithm, key, object, objectLength, secret, secretLength, flags);
    Record("BCryptGenerateSymmetricKey", *key);
    if (Observation* const observation = Current(); observation != nullptr) {
        observation->KeySource = secret;
        observation->KeyObject = object;
        observation->KeyObjects.push_back(object);
    }
    return status;
}

NTSTATUS WINAPI __wrap_BCryptDestroyKey(BCRYPT_KEY_HANDLE key) {
    Record("BCryptDestroyKey", key);
    return __real_BCryptDestroyKey(key);
}

} // extern "C"
