// The contract of the CNG calls beyond what they compute, which crypto_vectors_test.cpp holds against published
// vectors.
#include "cng.h"

#include <string>
#include <vector>

namespace {

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

const char* const keyHex = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";

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
    Message message{Bytes(12, 1), Bytes(20, 2), Bytes(64, 9), {}, {}};
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
    changed = message;
    changed.Associated[0] ^= 1;
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
    Message message{nonce, {}, Bytes(64, 9), {}, {}};
    EXPECT_EQ(Seal(key, message), 0);
    message.Tag[0] ^= 1;
    Bytes plain;
    EXPECT_EQ(Unseal(key, message, plain), authTagMismatch);
    EXPECT_EQ(GetLastError(), untouched);
}

} // namespace
