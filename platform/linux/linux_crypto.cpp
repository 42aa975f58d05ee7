// Cryptography: the answers to the CNG calls, over libcrypto. SHA-256 (FIPS 180-4), PBKDF2 with HMAC-SHA-256
// (RFC 8018), AES-256 in GCM mode (SP 800-38D) and random bytes; any other algorithm, mode or flag ends the process.
//
// The program opens a provider for every single hash and nonce. The library's algorithms are therefore fetched once in
// a process, and a provider here is nothing but a name for them.
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include <ntstatus.h>

#include "host_paths.h"
#include "left_out.h"
#include "linux_calls.h"
#include "secret_memory.h"
#include "unsupported.h"

using namespace vornix::platform;

namespace {

constexpr ULONG sha256Length = 32;
constexpr ULONG aesKeyLength = 32;
constexpr ULONG gcmNonceLength = 12;
constexpr ULONG shortestGcmTag = 12;
constexpr ULONG longestGcmTag = 16;
// The library counts bytes in an int; this is a multiple of the cipher's block.
constexpr size_t largestInput = size_t{1} << 30;

// The first word of every object behind a handle, so that a handle of another kind, or of an object already released,
// is refused as an invalid one.
enum class Tag : uint32_t {
    Released = 0,
    Provider = 0x50764F52,
    Hash = 0x48734F52,
    Key = 0x4B794F52,
};

enum class Algorithm {
    Sha256,
    HmacSha256,
    Random,
    Aes,
};

struct Provider {
    Tag Kind = Tag::Provider;
    Algorithm Which = Algorithm::Sha256;
    bool IsGcm = false;
};

// A hash in the making. Lies in the caller's object buffer where there is one, as on Windows.
struct Hash {
    Tag Kind = Tag::Hash;
    bool IsFinished = false;
    bool IsOwnAllocation = false;
    EVP_MD_CTX* Context = nullptr;
};

// A key, set up once for each direction. Lies in the caller's object buffer where there is one, as on Windows.
struct Key {
    Tag Kind = Tag::Key;
    bool IsOwnAllocation = false;
    EVP_CIPHER_CTX* Sealing = nullptr;
    EVP_CIPHER_CTX* Opening = nullptr;
};

// The length of an object buffer: the record, wherever in the buffer its alignment puts it.
template <typename Record>
constexpr ULONG objectLengthOf = static_cast<ULONG>(sizeof(Record) + alignof(Record) - 1);

template <typename Record>
Record* Checked(PVOID handle, Tag kind) {
    auto* const record = static_cast<Record*>(handle);
    return record != nullptr && record->Kind == kind ? record : nullptr;
}

// Makes a record in the caller's buffer, or in memory of its own where the caller leaves that to the system. Null,
// with the status, if the buffer is too small or there is no memory.
template <typename Record>
Record* MakeRecord(PUCHAR object, ULONG objectLength, NTSTATUS& status) {
    if (object == nullptr && objectLength == 0) {
        auto* const record = new (std::nothrow) Record;
        status = record != nullptr ? STATUS_SUCCESS : STATUS_NO_MEMORY;
        if (record != nullptr) {
            record->IsOwnAllocation = true;
        }
        return record;
    }
    void* place = object;
    size_t space = objectLength;
    if (object == nullptr || std::align(alignof(Record), sizeof(Record), place, space) == nullptr) {
        status = object == nullptr ? STATUS_INVALID_PARAMETER : STATUS_BUFFER_TOO_SMALL;
        return nullptr;
    }
    status = STATUS_SUCCESS;
    return new (place) Record;
}

template <typename Record>
void ReleaseRecord(Record* record) {
    record->Kind = Tag::Released;
    if (record->IsOwnAllocation) {
        delete record;
    }
}

// An algorithm of these names is fetched wherever one begins to use it.
constexpr bool isEachFetchedAnew = IsLeftOut("algorithm_cache");

const EVP_MD* Sha256() {
    if (isEachFetchedAnew) {
        return EVP_sha256();
    }
    static EVP_MD* const digest = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
    return digest;
}

const EVP_CIPHER* Aes256Gcm() {
    if (isEachFetchedAnew) {
        return EVP_aes_256_gcm();
    }
    static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    return cipher;
}

EVP_KDF* Pbkdf2() {
    static EVP_KDF* const derivation = EVP_KDF_fetch(nullptr, "PBKDF2", nullptr);
    return derivation;
}

bool IsText(LPCWSTR text, std::wstring_view wanted) {
    return text != nullptr && std::wstring_view(text) == wanted;
}

void RefuseFlags(const char* call, ULONG flags) {
    if (flags != 0) {
        EndUnsupported(call, "flags", flags);
    }
}

[[noreturn]] void EndUnsupportedName(const char* call, const char* what, LPCWSTR name) {
    EndUnsupported(call, (std::string(what) + " \"" + (name != nullptr ? HostPath(name) : "") + "\"").c_str());
}

// Puts all the input through the cipher, in pieces that the library can count.
bool UpdateCipher(EVP_CIPHER_CTX* context, uint8_t* output, const uint8_t* input, size_t length) {
    for (size_t done = 0; done < length;) {
        const size_t piece = std::min(length - done, largestInput);
        int written = 0;
        uint8_t* const place = output != nullptr ? output + done : nullptr;
        if (EVP_CipherUpdate(context, place, &written, input + done, static_cast<int>(piece)) != 1) {
            return false;
        }
        done += piece;
    }
    return true;
}

// The checks that sealing and opening share. Gives the mode's record, or null with the status.
const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO* CheckCipherCall(const char* call, const Key* key, const void* input,
                                                             ULONG inputLength, const void* padding, ULONG ivLength,
                                                             const ULONG* written, ULONG flags, NTSTATUS& status) {
    RefuseFlags(call, flags);
    if (ivLength != 0) {
        EndUnsupported(call, "an initialisation vector of length", ivLength);
    }
    const auto* const mode = static_cast<const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO*>(padding);
    if (key == nullptr) {
        status = STATUS_INVALID_HANDLE;
        return nullptr;
    }
    status = STATUS_INVALID_PARAMETER;
    if (mode == nullptr || written == nullptr || mode->cbSize != sizeof *mode ||
        mode->dwInfoVersion != BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION) {
        return nullptr;
    }
    if (mode->dwFlags != 0) {
        EndUnsupported(call, "chaining of calls, flags", mode->dwFlags);
    }
    if (mode->pbNonce == nullptr || mode->cbNonce != gcmNonceLength || mode->pbTag == nullptr ||
        mode->cbTag < shortestGcmTag || mode->cbTag > longestGcmTag ||
        (mode->pbAuthData == nullptr && mode->cbAuthData != 0) || (input == nullptr && inputLength != 0)) {
        return nullptr;
    }
    status = STATUS_SUCCESS;
    return mode;
}

// Starts a message: its nonce under the key that the context holds already, then the data that is only authenticated.
bool BeginMessage(EVP_CIPHER_CTX* context, const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO& mode) {
    return EVP_CipherInit_ex2(context, nullptr, nullptr, mode.pbNonce, -1, nullptr) == 1 &&
           UpdateCipher(context, nullptr, mode.pbAuthData, mode.cbAuthData);
}

EVP_CIPHER_CTX* MakeCipherContext(const uint8_t* secret, bool sealing) {
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    if (context != nullptr &&
        EVP_CipherInit_ex2(context, Aes256Gcm(), secret, nullptr, sealing ? 1 : 0, nullptr) != 1) {
        EVP_CIPHER_CTX_free(context);
        return nullptr;
    }
    return context;
}

} // namespace

NTSTATUS WINAPI LinuxBCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR id, LPCWSTR implementation,
                                                 ULONG flags) {
    constexpr const char* call = "BCryptOpenAlgorithmProvider";
    if (algorithm == nullptr || id == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (implementation != nullptr) {
        EndUnsupportedName(call, "implementation", implementation);
    }
    Algorithm which = Algorithm::Sha256;
    if (IsText(id, BCRYPT_SHA256_ALGORITHM) && flags == BCRYPT_ALG_HANDLE_HMAC_FLAG) {
        which = Algorithm::HmacSha256;
    } else {
        RefuseFlags(call, flags);
        if (IsText(id, BCRYPT_RNG_ALGORITHM)) {
            which = Algorithm::Random;
        } else if (IsText(id, BCRYPT_AES_ALGORITHM)) {
            which = Algorithm::Aes;
        } else if (!IsText(id, BCRYPT_SHA256_ALGORITHM)) {
            EndUnsupportedName(call, "algorithm", id);
        }
    }
    if (which == Algorithm::HmacSha256 || which == Algorithm::Aes) {
        HideMemory();
    }
    // A library without the algorithm is a system without its provider.
    const bool isThere =
        which == Algorithm::Random || (which == Algorithm::Aes ? Aes256Gcm() != nullptr : Sha256() != nullptr);
    if (!isThere || (which == Algorithm::HmacSha256 && Pbkdf2() == nullptr)) {
        return STATUS_NOT_FOUND;
    }
    auto* const provider = new (std::nothrow) Provider;
    if (provider == nullptr) {
        return STATUS_NO_MEMORY;
    }
    provider->Which = which;
    *algorithm = provider;
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptGetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG length,
                                       ULONG* written, ULONG flags) {
    RefuseFlags("BCryptGetProperty", flags);
    const Provider* const provider = Checked<Provider>(object, Tag::Provider);
    if (provider == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (property == nullptr || written == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsText(property, BCRYPT_OBJECT_LENGTH)) {
        EndUnsupportedName("BCryptGetProperty", "property", property);
    }
    if (provider->Which == Algorithm::Random) {
        return STATUS_NOT_SUPPORTED;
    }
    const ULONG value = provider->Which == Algorithm::Aes ? objectLengthOf<Key> : objectLengthOf<Hash>;
    *written = sizeof value;
    if (output == nullptr) {
        return STATUS_SUCCESS;
    }
    if (length < sizeof value) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(output, &value, sizeof value);
    return STATUS_SUCCESS;
}

// NOLINTNEXTLINE(readability-non-const-parameter): published so
NTSTATUS WINAPI LinuxBCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG length,
                                       ULONG flags) {
    constexpr const char* call = "BCryptSetProperty";
    RefuseFlags(call, flags);
    auto* const provider = Checked<Provider>(object, Tag::Provider);
    if (provider == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (property == nullptr || input == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsText(property, BCRYPT_CHAINING_MODE) || provider->Which != Algorithm::Aes) {
        EndUnsupportedName(call, "property", property);
    }
    // The length counts the bytes of 16-bit units, as on Windows, however wide a unit is kept here.
    const auto* const text = reinterpret_cast<LPCWSTR>(input);
    std::wstring mode;
    for (ULONG unit = 0; unit < length / 2 && text[unit] != 0; unit++) {
        mode.push_back(text[unit]);
    }
    if (mode != BCRYPT_CHAIN_MODE_GCM) {
        EndUnsupportedName(call, "chaining mode", mode.c_str());
    }
    provider->IsGcm = true;
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags) {
    RefuseFlags("BCryptCloseAlgorithmProvider", flags);
    auto* const provider = Checked<Provider>(algorithm, Tag::Provider);
    if (provider == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    provider->Kind = Tag::Released;
    delete provider;
    return STATUS_SUCCESS;
}

// NOLINTBEGIN(readability-non-const-parameter): published so
NTSTATUS WINAPI LinuxBCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE* hash, PUCHAR object,
                                      ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags) {
    // NOLINTEND(readability-non-const-parameter)
    constexpr const char* call = "BCryptCreateHash";
    RefuseFlags(call, flags);
    const Provider* const provider = Checked<Provider>(algorithm, Tag::Provider);
    if (provider == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (provider->Which == Algorithm::HmacSha256 || secret != nullptr || secretLength != 0) {
        EndUnsupported(call, "a hash with a secret");
    }
    if (provider->Which != Algorithm::Sha256 || hash == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    auto* const record = MakeRecord<Hash>(object, objectLength, status);
    if (record == nullptr) {
        return status;
    }
    record->Context = EVP_MD_CTX_new();
    if (record->Context == nullptr || EVP_DigestInit_ex2(record->Context, Sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(record->Context);
        ReleaseRecord(record);
        return STATUS_NO_MEMORY;
    }
    *hash = record;
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG length, ULONG flags) {
    RefuseFlags("BCryptHashData", flags);
    const Hash* const record = Checked<Hash>(hash, Tag::Hash);
    if (record == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (record->IsFinished || (input == nullptr && length != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    return EVP_DigestUpdate(record->Context, input, length) == 1 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

NTSTATUS WINAPI LinuxBCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG length, ULONG flags) {
    RefuseFlags("BCryptFinishHash", flags);
    Hash* const record = Checked<Hash>(hash, Tag::Hash);
    if (record == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (record->IsFinished || output == nullptr || length != sha256Length) {
        return STATUS_INVALID_PARAMETER;
    }
    record->IsFinished = true;
    return EVP_DigestFinal_ex(record->Context, output, nullptr) == 1 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

NTSTATUS WINAPI LinuxBCryptDestroyHash(BCRYPT_HASH_HANDLE hash) {
    Hash* const record = Checked<Hash>(hash, Tag::Hash);
    if (record == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    EVP_MD_CTX_free(record->Context);
    ReleaseRecord(record);
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG length, ULONG flags) {
    RefuseFlags("BCryptGenRandom", flags);
    const Provider* const provider = Checked<Provider>(algorithm, Tag::Provider);
    if (provider == nullptr || provider->Which != Algorithm::Random) {
        return STATUS_INVALID_HANDLE;
    }
    if (buffer == nullptr && length != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    for (ULONG done = 0; done < length;) {
        const ULONG piece = static_cast<ULONG>(std::min<size_t>(length - done, largestInput));
        if (RAND_bytes(buffer + done, static_cast<int>(piece)) != 1) {
            return STATUS_UNSUCCESSFUL;
        }
        done += piece;
    }
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                           ULONG saltLength, ULONGLONG iterations, PUCHAR key, ULONG keyLength,
                                           ULONG flags) {
    RefuseFlags("BCryptDeriveKeyPBKDF2", flags);
    const Provider* const provider = Checked<Provider>(prf, Tag::Provider);
    if (provider == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (provider->Which != Algorithm::HmacSha256 || iterations == 0 || key == nullptr || keyLength == 0 ||
        (password == nullptr && passwordLength != 0) || (salt == nullptr && saltLength != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    EVP_KDF_CTX* const context = EVP_KDF_CTX_new(Pbkdf2());
    if (context == nullptr) {
        return STATUS_NO_MEMORY;
    }
    // The library wants an address even where there are no bytes.
    uint8_t nothing = 0;
    uint64_t rounds = iterations;
    // The lower bounds of SP 800-132 are for the program to keep, not for its platform.
    int withoutLowerBounds = 1;
    char digest[] = "SHA2-256";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, password != nullptr ? password : &nothing,
                                          passwordLength),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt != nullptr ? salt : &nothing, saltLength),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &rounds),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &withoutLowerBounds),
        OSSL_PARAM_construct_end(),
    };
    const bool derived = EVP_KDF_derive(context, key, keyLength, parameters) == 1;
    EVP_KDF_CTX_free(context);
    return derived ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

NTSTATUS WINAPI LinuxBCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE* key, PUCHAR object,
                                                ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags) {
    constexpr const char* call = "BCryptGenerateSymmetricKey";
    RefuseFlags(call, flags);
    const Provider* const provider = Checked<Provider>(algorithm, Tag::Provider);
    if (provider == nullptr || provider->Which != Algorithm::Aes) {
        return STATUS_INVALID_HANDLE;
    }
    if (key == nullptr || secret == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (secretLength != aesKeyLength) {
        EndUnsupported(call, "a key of length", secretLength);
    }
    if (!provider->IsGcm) {
        EndUnsupported(call, "a chaining mode other than GCM");
    }
    NTSTATUS status = STATUS_SUCCESS;
    auto* const record = MakeRecord<Key>(object, objectLength, status);
    if (record == nullptr) {
        return status;
    }
    record->Sealing = MakeCipherContext(secret, true);
    record->Opening = MakeCipherContext(secret, false);
    if (record->Sealing == nullptr || record->Opening == nullptr) {
        (void)LinuxBCryptDestroyKey(record);
        return STATUS_NO_MEMORY;
    }
    *key = record;
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptDestroyKey(BCRYPT_KEY_HANDLE key) {
    Key* const record = Checked<Key>(key, Tag::Key);
    if (record == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    // The library wipes the key's schedule as it frees it.
    EVP_CIPHER_CTX_free(record->Sealing);
    EVP_CIPHER_CTX_free(record->Opening);
    ReleaseRecord(record);
    return STATUS_SUCCESS;
}

NTSTATUS WINAPI LinuxBCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, VOID* padding, PUCHAR,
                                   ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG* written, ULONG flags) {
    const Key* const record = Checked<Key>(key, Tag::Key);
    NTSTATUS status = STATUS_SUCCESS;
    const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO* const mode =
        CheckCipherCall("BCryptEncrypt", record, input, inputLength, padding, ivLength, written, flags, status);
    if (mode == nullptr) {
        return status;
    }
    *written = inputLength;
    if (output == nullptr) {
        return STATUS_SUCCESS;
    }
    if (outputLength < inputLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    uint8_t unusedBlock[16];
    int unusedLength = 0;
    const bool sealed =
        BeginMessage(record->Sealing, *mode) && UpdateCipher(record->Sealing, output, input, inputLength) &&
        EVP_CipherFinal_ex(record->Sealing, unusedBlock, &unusedLength) == 1 &&
        EVP_CIPHER_CTX_ctrl(record->Sealing, EVP_CTRL_AEAD_GET_TAG, static_cast<int>(mode->cbTag), mode->pbTag) == 1;
    return sealed ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

NTSTATUS WINAPI LinuxBCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, VOID* padding, PUCHAR,
                                   ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG* written, ULONG flags) {
    const Key* const record = Checked<Key>(key, Tag::Key);
    NTSTATUS status = STATUS_SUCCESS;
    const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO* const mode =
        CheckCipherCall("BCryptDecrypt", record, input, inputLength, padding, ivLength, written, flags, status);
    if (mode == nullptr) {
        return status;
    }
    *written = inputLength;
    if (output == nullptr) {
        return STATUS_SUCCESS;
    }
    if (outputLength < inputLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    uint8_t unusedBlock[16];
    int unusedLength = 0;
    const bool decrypted =
        BeginMessage(record->Opening, *mode) && UpdateCipher(record->Opening, output, input, inputLength) &&
        EVP_CIPHER_CTX_ctrl(record->Opening, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(mode->cbTag), mode->pbTag) == 1;
    if (decrypted && EVP_CipherFinal_ex(record->Opening, unusedBlock, &unusedLength) == 1) {
        return STATUS_SUCCESS;
    }
    // Bytes that nobody vouches for do not leave this call.
    OPENSSL_cleanse(output, inputLength);
    *written = 0;
    return decrypted ? STATUS_AUTH_TAG_MISMATCH : STATUS_UNSUCCESSFUL;
}
