// The CNG calls as the program makes them, for the tests of their contract and of the published vectors.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <string>
#include <vector>

using Bytes = std::vector<UCHAR>;

constexpr NTSTATUS invalidHandle = static_cast<NTSTATUS>(0xC0000008u);
constexpr NTSTATUS invalidParameter = static_cast<NTSTATUS>(0xC000000Du);
constexpr NTSTATUS bufferTooSmall = static_cast<NTSTATUS>(0xC0000023u);
constexpr NTSTATUS authTagMismatch = static_cast<NTSTATUS>(0xC000A002u);

inline Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<UCHAR>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline Bytes FromText(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// A provider that is closed at the end.
class Provider {
public:
    Provider(LPCWSTR id, ULONG flags) { EXPECT_EQ(BCryptOpenAlgorithmProvider(&handle_, id, nullptr, flags), 0); }
    ~Provider() { EXPECT_EQ(BCryptCloseAlgorithmProvider(handle_, 0), 0); }
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;
    BCRYPT_ALG_HANDLE Get() const { return handle_; }

    ULONG ObjectLength() const {
        ULONG length = 0;
        ULONG written = 0;
        EXPECT_EQ(BCryptGetProperty(handle_, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof length,
                                    &written, 0),
                  0);
        EXPECT_EQ(written, sizeof length);
        EXPECT_GT(length, 0u);
        return length;
    }

private:
    BCRYPT_ALG_HANDLE handle_ = nullptr;
};

// The digest of a message in pieces.
inline Bytes Sha256(const std::vector<Bytes>& pieces) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, 0);
    Bytes object(provider.ObjectLength());
    BCRYPT_HASH_HANDLE hash = nullptr;
    EXPECT_EQ(BCryptCreateHash(provider.Get(), &hash, object.data(), static_cast<ULONG>(object.size()), nullptr, 0, 0),
              0);
    for (Bytes piece : pieces) {
        EXPECT_EQ(BCryptHashData(hash, piece.data(), static_cast<ULONG>(piece.size()), 0), 0);
    }
    Bytes digest(32);
    EXPECT_EQ(BCryptFinishHash(hash, digest.data(), 32, 0), 0);
    EXPECT_EQ(BCryptDestroyHash(hash), 0);
    return digest;
}

// An AES-256 key in GCM mode, with its object buffer.
class GcmKey {
public:
    explicit GcmKey(Bytes secret) : provider_(BCRYPT_AES_ALGORITHM, 0) {
        // The length counts 16-bit units, the terminator among them, whatever a unit is kept in.
        std::wstring mode = BCRYPT_CHAIN_MODE_GCM;
        EXPECT_EQ(
            BCryptSetProperty(provider_.Get(), BCRYPT_CHAINING_MODE, reinterpret_cast<PUCHAR>(mode.data()), 32, 0), 0);
        object_.resize(provider_.ObjectLength());
        EXPECT_EQ(BCryptGenerateSymmetricKey(provider_.Get(), &key_, object_.data(), static_cast<ULONG>(object_.size()),
                                             secret.data(), static_cast<ULONG>(secret.size()), 0),
                  0);
        // The key is the system's from here on.
        std::fill(secret.begin(), secret.end(), UCHAR{0});
    }
    ~GcmKey() { EXPECT_EQ(BCryptDestroyKey(key_), 0); }
    GcmKey(const GcmKey&) = delete;
    GcmKey& operator=(const GcmKey&) = delete;

    BCRYPT_KEY_HANDLE Get() const { return key_; }

private:
    Provider provider_;
    Bytes object_;
    BCRYPT_KEY_HANDLE key_ = nullptr;
};

struct Message {
    Bytes Nonce;
    Bytes Associated;
    Bytes Plain;
    Bytes Sealed;
    Bytes Tag;
};

inline BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO ModeOf(Message& message) {
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode{};
    mode.cbSize = sizeof mode;
    mode.dwInfoVersion = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION;
    mode.pbNonce = message.Nonce.data();
    mode.cbNonce = static_cast<ULONG>(message.Nonce.size());
    mode.pbAuthData = message.Associated.empty() ? nullptr : message.Associated.data();
    mode.cbAuthData = static_cast<ULONG>(message.Associated.size());
    mode.pbTag = message.Tag.data();
    mode.cbTag = static_cast<ULONG>(message.Tag.size());
    return mode;
}

inline NTSTATUS Seal(const GcmKey& key, Message& message) {
    const ULONG length = static_cast<ULONG>(message.Plain.size());
    message.Sealed.assign(length, 0);
    message.Tag.assign(16, 0);
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode = ModeOf(message);
    ULONG written = 0;
    UCHAR nothing = 0;
    const NTSTATUS status = BCryptEncrypt(key.Get(), message.Plain.data(), length, &mode, nullptr, 0,
                                          length != 0 ? message.Sealed.data() : &nothing, length, &written, 0);
    if (status >= 0) {
        EXPECT_EQ(written, length);
    }
    return status;
}

inline NTSTATUS Unseal(const GcmKey& key, Message& message, Bytes& plain) {
    const ULONG length = static_cast<ULONG>(message.Sealed.size());
    plain.assign(length, 0xEE);
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode = ModeOf(message);
    ULONG written = 0;
    UCHAR nothing = 0;
    const NTSTATUS status = BCryptDecrypt(key.Get(), message.Sealed.data(), length, &mode, nullptr, 0,
                                          length != 0 ? plain.data() : &nothing, length, &written, 0);
    if (status >= 0) {
        EXPECT_EQ(written, length);
    }
    return status;
}
