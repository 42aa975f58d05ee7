// ChunkKey and sealing through CNG.
#include "crypto/chunk_key.h"

#include <utility>

#include "cli/fatal.h"

namespace vornix {

namespace {

constexpr ULONG keyLength = 32;
constexpr ULONG nonceLength = 12;
constexpr ULONG tagLength = 16;
// Bytes of the mode's name as the property wants them: sixteen 16-bit units, the terminator among them.
constexpr ULONG gcmNameLength = 32;

// CNG takes its inputs as pointers to non-const bytes and leaves them as they are.
PUCHAR AsInput(const void* bytes) {
    return static_cast<PUCHAR>(const_cast<void*>(bytes));
}

// One complete message: no chaining of calls, no additional data.
BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO DescribeMessage(const uint8_t* nonce, const uint8_t* tag) {
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info{};
    info.cbSize = sizeof(info);
    info.dwInfoVersion = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION;
    info.pbNonce = AsInput(nonce);
    info.cbNonce = nonceLength;
    info.pbTag = AsInput(tag);
    info.cbTag = tagLength;
    return info;
}

} // namespace

ChunkKey::ChunkKey(const uint8_t* keyBytes) {
    const NTSTATUS opened = BCryptOpenAlgorithmProvider(&Provider, BCRYPT_AES_ALGORITHM, nullptr, 0);
    if (opened < 0) {
        Fatal("BCryptOpenAlgorithmProvider(AES)", opened);
    }
    const NTSTATUS chained =
        BCryptSetProperty(Provider, BCRYPT_CHAINING_MODE, AsInput(BCRYPT_CHAIN_MODE_GCM), gcmNameLength, 0);
    if (chained < 0) {
        Fatal("BCryptSetProperty(GCM)", chained);
    }
    // Where the length cannot be had it stays 0, and the creation of the key decides.
    ULONG objectLength = 0;
    ULONG written = 0;
    BCryptGetProperty(Provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&objectLength), sizeof(objectLength),
                      &written, 0);
    KeyObject.resize(objectLength);
    const NTSTATUS generated =
        BCryptGenerateSymmetricKey(Provider, &KeyHandle, KeyObject.empty() ? nullptr : KeyObject.data(), objectLength,
                                   AsInput(keyBytes), keyLength, 0);
    if (generated < 0) {
        Fatal("BCryptGenerateSymmetricKey", generated);
    }
}

ChunkKey::ChunkKey(ChunkKey&& other) noexcept
    : Provider(std::exchange(other.Provider, nullptr)), KeyHandle(std::exchange(other.KeyHandle, nullptr)),
      KeyObject(std::exchange(other.KeyObject, {})) {}

ChunkKey& ChunkKey::operator=(ChunkKey&& other) noexcept {
    if (this != &other) {
        Release();
        Provider = std::exchange(other.Provider, nullptr);
        KeyHandle = std::exchange(other.KeyHandle, nullptr);
        KeyObject = std::exchange(other.KeyObject, {});
    }
    return *this;
}

ChunkKey::~ChunkKey() {
    Release();
}

void ChunkKey::Release() {
    if (KeyHandle != nullptr) {
        BCryptDestroyKey(std::exchange(KeyHandle, nullptr));
    }
    if (Provider != nullptr) {
        BCryptCloseAlgorithmProvider(std::exchange(Provider, nullptr), 0);
    }
    KeyObject = std::vector<UCHAR>();
}

void SealChunk(const ChunkKey& key, const uint8_t* plain, uint32_t length, const uint8_t* nonce, uint8_t* sealed,
               uint8_t* tag) {
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = DescribeMessage(nonce, tag);
    ULONG written = 0;
    const NTSTATUS status =
        BCryptEncrypt(key.Handle(), AsInput(plain), length, &info, nullptr, 0, sealed, length, &written, 0);
    if (status < 0) {
        Fatal("BCryptEncrypt", status);
    }
}

bool UnsealChunk(const ChunkKey& key, const uint8_t* sealed, uint32_t length, const uint8_t* nonce, const uint8_t* tag,
                 uint8_t* plain) {
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = DescribeMessage(nonce, tag);
    ULONG written = 0;
    const NTSTATUS status =
        BCryptDecrypt(key.Handle(), AsInput(sealed), length, &info, nullptr, 0, plain, length, &written, 0);
    return status >= 0;
}

} // namespace vornix
