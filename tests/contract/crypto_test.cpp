// The contract of the CNG calls, against published vectors: FIPS 180-4 (SHA-256), RFC 7914 (PBKDF2 with
// HMAC-SHA-256), NIST SP 800-38D (AES-256-GCM).
#include <gtest/gtest.h>

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<UCHAR>;

constexpr NTSTATUS authTagMismatch = static_cast<NTSTATUS>(0xC000A002u);
constexpr NTSTATUS invalidParameter = static_cast<NTSTATUS>(0xC000000Du);
constexpr NTSTATUS invalidHandle = static_cast<NTSTATUS>(0xC0000008u);
constexpr NTSTATUS bufferTooSmall = static_cast<NTSTATUS>(0xC0000023u);

Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<UCHAR>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

Bytes FromText(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

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

Bytes Sha256(const std::vector<Bytes>& pieces) {
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

TEST(CryptoContract, Sha256OfPublishedMessages) {
    EXPECT_EQ(Sha256({FromText("abc")}), FromHex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(Sha256({FromText("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")}),
              FromHex("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"));
    EXPECT_EQ(Sha256({Bytes(1'000'000, 'a')}),
              FromHex("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"));
}

TEST(CryptoContract, Sha256OfNothing) {
    const Bytes digest = FromHex("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(Sha256({}), digest);
    EXPECT_EQ(Sha256({Bytes()}), digest);
}

TEST(CryptoContract, Sha256OfPiecesIsThatOfTheWhole) {
    EXPECT_EQ(Sha256({FromText("a"), FromText(""), FromText("bc")}), Sha256({FromText("abc")}));
}

TEST(CryptoContract, HashObjectMayBeTheSystems) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, 0);
    BCRYPT_HASH_HANDLE hash = nullptr;
    ASSERT_EQ(BCryptCreateHash(provider.Get(), &hash, nullptr, 0, nullptr, 0, 0), 0);
    Bytes message = FromText("abc");
    EXPECT_EQ(BCryptHashData(hash, message.data(), 3, 0), 0);
    Bytes digest(32);
    EXPECT_EQ(BCryptFinishHash(hash, digest.data(), 32, 0), 0);
    EXPECT_EQ(digest, FromHex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(BCryptDestroyHash(hash), 0);
}

TEST(CryptoContract, HashOutlivesTheHandleOfItsProvider) {
    BCRYPT_HASH_HANDLE hash = nullptr;
    Bytes object;
    {
        const Provider provider(BCRYPT_SHA256_ALGORITHM, 0);
        object.resize(provider.ObjectLength());
        ASSERT_EQ(
            BCryptCreateHash(provider.Get(), &hash, object.data(), static_cast<ULONG>(object.size()), nullptr, 0, 0),
            0);
    }
    Bytes digest(32);
    EXPECT_EQ(BCryptFinishHash(hash, digest.data(), 32, 0), 0);
    EXPECT_EQ(digest, FromHex("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    EXPECT_EQ(BCryptDestroyHash(hash), 0);
}

TEST(CryptoContract, DigestOfAnotherLengthIsRefused) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, 0);
    BCRYPT_HASH_HANDLE hash = nullptr;
    ASSERT_EQ(BCryptCreateHash(provider.Get(), &hash, nullptr, 0, nullptr, 0, 0), 0);
    Bytes digest(33);
    EXPECT_EQ(BCryptFinishHash(hash, digest.data(), 31, 0), invalidParameter);
    EXPECT_EQ(BCryptDestroyHash(hash), 0);
}

TEST(CryptoContract, NullHandlesAreInvalid) {
    Bytes buffer(32);
    ULONG written = 0;
    EXPECT_EQ(BCryptHashData(nullptr, buffer.data(), 32, 0), invalidHandle);
    EXPECT_EQ(BCryptFinishHash(nullptr, buffer.data(), 32, 0), invalidHandle);
    EXPECT_LT(BCryptDestroyHash(nullptr), 0);
    EXPECT_EQ(BCryptDestroyKey(nullptr), invalidHandle);
    EXPECT_EQ(BCryptCloseAlgorithmProvider(nullptr, 0), invalidHandle);
    EXPECT_EQ(BCryptGetProperty(nullptr, BCRYPT_OBJECT_LENGTH, buffer.data(), 4, &written, 0), invalidHandle);
}

TEST(CryptoContract, PropertyNeedsRoom) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, 0);
    UCHAR buffer[4] = {};
    ULONG written = 0;
    EXPECT_EQ(BCryptGetProperty(provider.Get(), BCRYPT_OBJECT_LENGTH, buffer, 3, &written, 0), bufferTooSmall);
    EXPECT_EQ(written, 4u);
}

TEST(CryptoContract, RandomBytesDiffer) {
    const Provider provider(BCRYPT_RNG_ALGORITHM, 0);
    Bytes first(32);
    Bytes second(32);
    EXPECT_EQ(BCryptGenRandom(provider.Get(), first.data(), 32, 0), 0);
    EXPECT_EQ(BCryptGenRandom(provider.Get(), second.data(), 32, 0), 0);
    EXPECT_NE(first, second);
    EXPECT_NE(first, Bytes(32));
    // Only as many bytes as asked for are touched.
    Bytes guarded(16, 0xA5);
    EXPECT_EQ(BCryptGenRandom(provider.Get(), guarded.data(), 8, 0), 0);
    EXPECT_EQ(Bytes(guarded.begin() + 8, guarded.end()), Bytes(8, 0xA5));
}

TEST(CryptoContract, Pbkdf2OfPublishedInputs) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    Bytes key(64);
    Bytes password = FromText("passwd");
    Bytes salt = FromText("salt");
    EXPECT_EQ(BCryptDeriveKeyPBKDF2(provider.Get(), password.data(), 6, salt.data(), 4, 1, key.data(), 64, 0), 0);
    EXPECT_EQ(key, FromHex("55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
                           "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783"));
    password = FromText("Password");
    salt = FromText("NaCl");
    EXPECT_EQ(BCryptDeriveKeyPBKDF2(provider.Get(), password.data(), 8, salt.data(), 4, 80000, key.data(), 64, 0), 0);
    EXPECT_EQ(key, FromHex("4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
                           "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d"));
}

TEST(CryptoContract, Pbkdf2TakesABytePasswordWithZerosInIt) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    Bytes salt(16, 7);
    Bytes whole(32);
    Bytes cut(32);
    Bytes password = {'a', 0, 'b'};
    EXPECT_EQ(BCryptDeriveKeyPBKDF2(provider.Get(), password.data(), 3, salt.data(), 16, 2, whole.data(), 32, 0), 0);
    EXPECT_EQ(BCryptDeriveKeyPBKDF2(provider.Get(), password.data(), 1, salt.data(), 16, 2, cut.data(), 32, 0), 0);
    EXPECT_NE(whole, cut);
}

TEST(CryptoContract, Pbkdf2RefusesNoIterations) {
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    Bytes bytes(32);
    EXPECT_EQ(BCryptDeriveKeyPBKDF2(provider.Get(), bytes.data(), 8, bytes.data(), 8, 0, bytes.data(), 32, 0),
              invalidParameter);
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

BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO ModeOf(Message& message) {
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

NTSTATUS Seal(const GcmKey& key, Message& message) {
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

NTSTATUS Unseal(const GcmKey& key, Message& message, Bytes& plain) {
    const ULONG length = static_cast<ULONG>(message.Sealed.size());
    plain.assign(length, 0xEE);
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode = ModeOf(message);
    ULONG written = 0;
    UCHAR nothing = 0;
    return BCryptDecrypt(key.Get(), message.Sealed.data(), length, &mode, nullptr, 0,
                         length != 0 ? plain.data() : &nothing, length, &written, 0);
}

const char* const plainHex = "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
                             "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255";
const char* const sealedHex = "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
                              "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad";
const char* const keyHex = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";

TEST(CryptoContract, GcmOfPublishedMessages) {
    {
        const GcmKey key(Bytes(32, 0));
        Message block{Bytes(12, 0), {}, Bytes(16, 0), {}, {}};
        EXPECT_EQ(Seal(key, block), 0);
        EXPECT_EQ(block.Sealed, FromHex("cea7403d4d606b6e074ec5d3baf39d18"));
        EXPECT_EQ(block.Tag, FromHex("d0d1c8a799996bf0265b98b5d48ab919"));
    }
    const GcmKey key(FromHex(keyHex));
    Message message{FromHex("cafebabefacedbaddecaf888"), {}, FromHex(plainHex), {}, {}};
    EXPECT_EQ(Seal(key, message), 0);
    EXPECT_EQ(message.Sealed, FromHex(sealedHex));
    EXPECT_EQ(message.Tag, FromHex("b094dac5d93471bdec1a502270e3cc6c"));
    Bytes plain;
    EXPECT_EQ(Unseal(key, message, plain), 0);
    EXPECT_EQ(plain, message.Plain);
}

TEST(CryptoContract, GcmBindsAssociatedData) {
    const GcmKey key(FromHex(keyHex));
    Message message{FromHex("cafebabefacedbaddecaf888"),
                    FromHex("feedfacedeadbeeffeedfacedeadbeefabaddad2"),
                    FromHex(plainHex),
                    {},
                    {}};
    message.Plain.resize(60);
    EXPECT_EQ(Seal(key, message), 0);
    EXPECT_EQ(message.Tag, FromHex("76fc6ece0f4e1768cddf8853bb2d551b"));
    message.Associated[0] ^= 1;
    Bytes plain;
    EXPECT_EQ(Unseal(key, message, plain), authTagMismatch);
}

TEST(CryptoContract, KeyServesManyMessagesInAnyOrder) {
    const GcmKey key(FromHex(keyHex));
    std::vector<Message> messages;
    for (UCHAR i = 0; i < 8; i++) {
        messages.push_back({Bytes(12, i), {}, Bytes(size_t{1000} * i + 1, i), {}, {}});
        EXPECT_EQ(Seal(key, messages.back()), 0);
        Bytes plain;
        EXPECT_EQ(Unseal(key, messages[i / 2], plain), 0);
        EXPECT_EQ(plain, messages[i / 2].Plain);
    }
    // The same message under another nonce has another form.
    Message first{Bytes(12, 1), {}, Bytes(64, 9), {}, {}};
    Message second{Bytes(12, 2), {}, Bytes(64, 9), {}, {}};
    EXPECT_EQ(Seal(key, first), 0);
    EXPECT_EQ(Seal(key, second), 0);
    EXPECT_NE(first.Sealed, second.Sealed);
    EXPECT_NE(first.Tag, second.Tag);
}

TEST(CryptoContract, AnyChangeFailsAuthentication) {
    const GcmKey key(FromHex(keyHex));
    const GcmKey otherKey(Bytes(32, 3));
    Message message{FromHex("cafebabefacedbaddecaf888"), {}, FromHex(plainHex), {}, {}};
    ASSERT_EQ(Seal(key, message), 0);
    Bytes plain;

    Message changed = message;
    changed.Sealed.back() ^= 0x80;
    EXPECT_EQ(Unseal(key, changed, plain), authTagMismatch);
    changed = message;
    changed.Tag[0] ^= 1;
    EXPECT_EQ(Unseal(key, changed, plain), authTagMismatch);
    changed = message;
    changed.Nonce[11] ^= 1;
    EXPECT_EQ(Unseal(key, changed, plain), authTagMismatch);
    EXPECT_EQ(Unseal(otherKey, message, plain), authTagMismatch);

    EXPECT_EQ(Unseal(key, message, plain), 0) << "a failure leaves the key fit for the next message";
    EXPECT_EQ(plain, message.Plain);
}

TEST(CryptoContract, CipherNeedsItsModeAndRoom) {
    const GcmKey key(FromHex(keyHex));
    Message message{Bytes(12, 1), {}, Bytes(64, 9), Bytes(64), Bytes(16)};
    ULONG written = 0;
    EXPECT_EQ(
        BCryptEncrypt(key.Get(), message.Plain.data(), 64, nullptr, nullptr, 0, message.Sealed.data(), 64, &written, 0),
        invalidParameter);
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode = ModeOf(message);
    EXPECT_EQ(
        BCryptEncrypt(key.Get(), message.Plain.data(), 64, &mode, nullptr, 0, message.Sealed.data(), 63, &written, 0),
        bufferTooSmall);
    EXPECT_EQ(
        BCryptEncrypt(nullptr, message.Plain.data(), 64, &mode, nullptr, 0, message.Sealed.data(), 64, &written, 0),
        invalidHandle);
    EXPECT_EQ(
        BCryptDecrypt(nullptr, message.Plain.data(), 64, &mode, nullptr, 0, message.Sealed.data(), 64, &written, 0),
        invalidHandle);
}

TEST(CryptoContract, CallsLeaveTheLastErrorAlone) {
    constexpr DWORD untouched = 0x1234;
    // The first use of a provider may load what it needs.
    (void)Sha256({FromText("abc")});
    Bytes nonce(12);
    const Provider random(BCRYPT_RNG_ALGORITHM, 0);
    EXPECT_EQ(BCryptGenRandom(random.Get(), nonce.data(), 12, 0), 0);
    const GcmKey key(FromHex(keyHex));
    SetLastError(untouched);
    (void)Sha256({FromText("abc")});
    EXPECT_EQ(GetLastError(), untouched);
    EXPECT_EQ(BCryptGenRandom(random.Get(), nonce.data(), 12, 0), 0);
    Message message{nonce, {}, FromHex(plainHex), {}, {}};
    EXPECT_EQ(Seal(key, message), 0);
    message.Tag[0] ^= 1;
    Bytes plain;
    EXPECT_EQ(Unseal(key, message, plain), authTagMismatch);
    EXPECT_EQ(GetLastError(), untouched);
}

} // namespace
