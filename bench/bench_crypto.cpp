// The cryptographic calls (CNG) on the described machine: the host's own cryptography, logged and failed as described.
// No password, key or chunk byte goes into the log; salts and nonces, which lie open in an image, do.
#include "bench_calls.h"
#include "call_record.h"
#include "machine.h"
#include "real_calls.h"
#include "remembered_keys.h"
#include "text.h"

#include <cstddef>

using namespace vornix::bench;

namespace {

// The status of the real call, unless a fault gives another; what the real call leaves as the last error stays.
template <typename RealCall>
NTSTATUS Answer(CallRecord& call, RealCall realCall) {
    return call.AnswerStatus([&] {
        const NTSTATUS status = realCall();
        call.AdoptLastError();
        return status;
    });
}

// The nonce of an authenticated mode; empty where the call has none.
std::string NonceOf(const VOID* padding) {
    const auto* const mode = static_cast<const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO*>(padding);
    return mode == nullptr ? "" : HexFromBytes(mode->pbNonce, mode->cbNonce);
}

} // namespace

NTSTATUS WINAPI BenchBCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR id, LPCWSTR implementation,
                                                 ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptOpenAlgorithmProvider(algorithm, id, implementation, flags);
    }
    CallRecord call("BCryptOpenAlgorithmProvider");
    call.Add("algorithm", Utf8FromWide(id));
    call.AddCode("flags", flags);
    return Answer(call, [&] { return RealBCryptOpenAlgorithmProvider(algorithm, id, implementation, flags); });
}

NTSTATUS WINAPI BenchBCryptGetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG length,
                                       ULONG* written, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptGetProperty(object, property, output, length, written, flags);
    }
    CallRecord call("BCryptGetProperty");
    call.Add("property", Utf8FromWide(property));
    call.Add("length", length);
    return Answer(call, [&] { return RealBCryptGetProperty(object, property, output, length, written, flags); });
}

NTSTATUS WINAPI BenchBCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG length,
                                       ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptSetProperty(object, property, input, length, flags);
    }
    CallRecord call("BCryptSetProperty");
    call.Add("property", Utf8FromWide(property));
    call.Add("length", length);
    return Answer(call, [&] { return RealBCryptSetProperty(object, property, input, length, flags); });
}

NTSTATUS WINAPI BenchBCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptCloseAlgorithmProvider(algorithm, flags);
    }
    CallRecord call("BCryptCloseAlgorithmProvider");
    return Answer(call, [&] { return RealBCryptCloseAlgorithmProvider(algorithm, flags); });
}

NTSTATUS WINAPI BenchBCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE* hash, PUCHAR object,
                                      ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptCreateHash(algorithm, hash, object, objectLength, secret, secretLength, flags);
    }
    CallRecord call("BCryptCreateHash");
    return Answer(
        call, [&] { return RealBCryptCreateHash(algorithm, hash, object, objectLength, secret, secretLength, flags); });
}

NTSTATUS WINAPI BenchBCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG length, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptHashData(hash, input, length, flags);
    }
    CallRecord call("BCryptHashData");
    call.Add("length", length);
    return Answer(call, [&] { return RealBCryptHashData(hash, input, length, flags); });
}

NTSTATUS WINAPI BenchBCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG length, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptFinishHash(hash, output, length, flags);
    }
    CallRecord call("BCryptFinishHash");
    return Answer(call, [&] { return RealBCryptFinishHash(hash, output, length, flags); });
}

NTSTATUS WINAPI BenchBCryptDestroyHash(BCRYPT_HASH_HANDLE hash) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptDestroyHash(hash);
    }
    CallRecord call("BCryptDestroyHash");
    return Answer(call, [&] { return RealBCryptDestroyHash(hash); });
}

NTSTATUS WINAPI BenchBCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG length, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptGenRandom(algorithm, buffer, length, flags);
    }
    CallRecord call("BCryptGenRandom");
    call.Add("length", length);
    return Answer(call, [&] { return DrawOrSameSalt(algorithm, buffer, length, flags); });
}

NTSTATUS WINAPI BenchBCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                           ULONG saltLength, ULONGLONG iterations, PUCHAR key, ULONG keyLength,
                                           ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptDeriveKeyPBKDF2(prf, password, passwordLength, salt, saltLength, iterations, key, keyLength,
                                         flags);
    }
    CallRecord call("BCryptDeriveKeyPBKDF2");
    call.Add("salt", HexFromBytes(salt, saltLength));
    call.Add("iterations", iterations);
    call.Add("length", keyLength);
    return Answer(call, [&] {
        return DeriveKeyOnce(prf, password, passwordLength, salt, saltLength, iterations, key, keyLength, flags);
    });
}

NTSTATUS WINAPI BenchBCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE* key, PUCHAR object,
                                                ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptGenerateSymmetricKey(algorithm, key, object, objectLength, secret, secretLength, flags);
    }
    CallRecord call("BCryptGenerateSymmetricKey");
    call.Add("length", secretLength);
    return Answer(call, [&] {
        return RealBCryptGenerateSymmetricKey(algorithm, key, object, objectLength, secret, secretLength, flags);
    });
}

NTSTATUS WINAPI BenchBCryptDestroyKey(BCRYPT_KEY_HANDLE key) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptDestroyKey(key);
    }
    CallRecord call("BCryptDestroyKey");
    return Answer(call, [&] { return RealBCryptDestroyKey(key); });
}

NTSTATUS WINAPI BenchBCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, VOID* padding, PUCHAR iv,
                                   ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG* written, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptEncrypt(key, input, inputLength, padding, iv, ivLength, output, outputLength, written, flags);
    }
    CallRecord call("BCryptEncrypt");
    call.Add("length", inputLength);
    call.Add("nonce", NonceOf(padding));
    return Answer(call, [&] {
        return RealBCryptEncrypt(key, input, inputLength, padding, iv, ivLength, output, outputLength, written, flags);
    });
}

NTSTATUS WINAPI BenchBCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, VOID* padding, PUCHAR iv,
                                   ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG* written, ULONG flags) {
    if (CurrentMachine() == nullptr) {
        return RealBCryptDecrypt(key, input, inputLength, padding, iv, ivLength, output, outputLength, written, flags);
    }
    CallRecord call("BCryptDecrypt");
    call.Add("length", inputLength);
    call.Add("nonce", NonceOf(padding));
    return Answer(call, [&] {
        return RealBCryptDecrypt(key, input, inputLength, padding, iv, ivLength, output, outputLength, written, flags);
    });
}
