// The key of one image, and the sealing of its chunks with AES-256-GCM (SP 800-38D): a 96-bit nonce, a 128-bit tag, no
// additional data. Each chunk is a message of its own; a sealed chunk is as long as its plain bytes.
#pragma once

#include <windows.h>
#include <cstdint>
#include <vector>

#include <bcrypt.h>

namespace vornix {

// A derived key in the form that the platform wants it. Moves and is never copied: the platform keeps the key inside
// keyObject_, so that buffer is handed over and never changes its address. A moved-from key holds nothing.
class ChunkKey {
public:
    // `keyBytes` are 32 bytes, which are not kept and which the caller wipes. Ends the process where the platform
    // fails.
    explicit ChunkKey(const uint8_t* keyBytes);
    ChunkKey(ChunkKey&& other) noexcept;
    ChunkKey& operator=(ChunkKey&& other) noexcept;
    ChunkKey(const ChunkKey&) = delete;
    ChunkKey& operator=(const ChunkKey&) = delete;
    ~ChunkKey();

    BCRYPT_KEY_HANDLE Handle() const { return keyHandle_; }

private:
    // Key, provider, buffer, in this order. The buffer is freed as it is, without being overwritten.
    void Release();

    BCRYPT_ALG_HANDLE provider_ = nullptr;
    BCRYPT_KEY_HANDLE keyHandle_ = nullptr;
    std::vector<UCHAR> keyObject_;
};

// Seals `length` plain bytes into `sealed`, a separate buffer of that length, under the 12 bytes at `nonce`, and puts
// the 16 bytes of the tag into `tag`. A nonce is drawn afresh for every call. Ends the process where the platform
// fails.
void SealChunk(const ChunkKey& key, const uint8_t* plain, uint32_t length, const uint8_t* nonce, uint8_t* sealed,
               uint8_t* tag);

// Opens `length` sealed bytes into `plain`. False where they do not authenticate, for whatever reason, a wrong password
// included; `plain` is not to be used then.
bool UnsealChunk(const ChunkKey& key, const uint8_t* sealed, uint32_t length, const uint8_t* nonce, const uint8_t* tag,
                 uint8_t* plain);

} // namespace vornix
