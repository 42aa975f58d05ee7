// ChunkKey and sealing through CNG.
#include "crypto/chunk_key.h"

#include <utility>

#include "crypto/cng.h"

namespace vornix {

namespace {

constexpr ULONG keyLength = 32;
constexpr ULONG nonceLength = 12;
constexpr ULONG tagLength = 16;
// Bytes of the mode's name as the property wants them: sixteen 16-bit units, the terminator among them.
constexpr ULONG gcmNameLength = 32;

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
    CheckStatus(BCryptOpenAlgorithmProvider(&provider_, BCRYPT_AES_ALGORITHM, nullptr, 0),
                "BCryptOpenAlgorithmProvider(AES)");
    CheckStatus(BCryptSetProperty(provider_, BCRYPT_CHAINING_MODE, AsInput(BCRYPT_CHAIN_MODE_GCM), gcmNameLength, 0),
                "BCryptSetProperty(GCM)");
    keyObject_.resize(GetObjectLength(provider_)); // data() of an empty one is null
    CheckStatus(BCryptGenerateSymmetricKey(provider_, &keyHandle_, keyObject_.data(),
                                           static_cast<ULONG>(keyObject_.size()), AsInput(keyBytes), keyLength, 0),
                "BCryptGenerateSymmetricKey");
}

ChunkKey::ChunkKey(ChunkKey&& other) noexcept
    : provider_(std::exchange(other.provider_, nullptr)), keyHandle_(std::exchange(other.keyHandle_, nullptr)),
      keyObject_(std::move(other.keyObject_)) {}

ChunkKey& ChunkKey::operator=(ChunkKey&& other) noexcept {
    if (this != &other) {
        Release();
        provider_ = std::exchange(other.provider_, nullptr);
        keyHandle_ = std::exchange(other.keyHandle_, nullptr);
        keyObject_ = std::move(other.keyObject_);
    }
    return *this;
}

ChunkKey::~ChunkKey() {
    Release();
}

void ChunkKey::Release() {
    if (keyHandle_ != nullptr) {
        BCryptDestroyKey(std::exchange(keyHandle_, nullptr));
    }
    if (provider_ != nullptr) {
        BCryptCloseAlgorithmProvider(std::exchange(provider_, nullptr), 0);
    }
    keyObject_ = std::vector<UCHAR>();
}

void SealChunk(const ChunkKey& key, const uint8_t* plain, uint32_t length, const uint8_t* nonce, uint8_t* sealed,
               uint8_t* tag) {
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = DescribeMessage(nonce, tag);
    ULONG written = 0;
    CheckStatus(BCryptEncrypt(key.Handle(), AsInput(plain), length, &info, nullptr, 0, sealed, length, &written, 0),
                "BCryptEncrypt");
}

bool UnsealChunk(const ChunkKey& key, const uint8_t* sealed, uint32_t length, const uint8_t* nonce, const uint8_t* tag,
                 uint8_t* plain) {
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = DescribeMessage(nonce, tag);
    ULONG written = 0;
    return BCryptDecrypt(key.Handle(), AsInput(sealed), length, &info, nullptr, 0, plain, length, &written, 0) >= 0;
}

} // namespace vornix
