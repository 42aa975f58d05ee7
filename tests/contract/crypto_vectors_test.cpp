// Published test vectors of the three algorithms that an image rests on, put through the platform's calls in the way
// the program uses them. Nothing here was computed by this project; each table names where it is published.
#include "cng.h"

#include <string>
#include <vector>

namespace {

// --- SHA-256
// --------------------------------------------------------------------------------------------------------------

struct DigestVector {
    Bytes Message;
    const char* Digest;
};

TEST(CryptoVectors, Sha256OfTheExamplesOfFips180) {
    // FIPS 180-2, appendices B.1 to B.3; FIPS 180-4 is about the same function and leaves its examples to NIST's pages.
    const DigestVector vectors[] = {
        {FromText("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {FromText("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {Bytes(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const DigestVector& vector : vectors) {
        EXPECT_EQ(Sha256({vector.Message}), FromHex(vector.Digest)) << vector.Message.size() << " bytes";
    }
}

TEST(CryptoVectors, Sha256OfShortMessagesOfTheValidationProgram) {
    // NIST Cryptographic Algorithm Validation Program, SHA test vectors for byte-oriented implementations,
    // SHA256ShortMsg.rsp: lengths of 0, 8, 16, 24 and 32 bits.
    const DigestVector vectors[] = {
        {{}, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {FromHex("d3"), "28969cdfa74a12c82f3bad960b0b000aca2ac329deea5c2328ebc6f2ba9802c1"},
        {FromHex("11af"), "5ca7133fa735326081558ac312c620eeca9970d1e70a4b95533d956f072d1f98"},
        {FromHex("b4190e"), "dff2e73091f6c05e528896c4c831b9448653dc2ff043528f6769437bc7b975c2"},
        {FromHex("74ba2521"), "b16aa56be3880d18cd41e68384cf1ec8c17680c45a02b1575dc1518923ae8b0e"},
    };
    for (const DigestVector& vector : vectors) {
        EXPECT_EQ(Sha256({vector.Message}), FromHex(vector.Digest)) << vector.Message.size() << " bytes";
    }
}

// --- PBKDF2 with HMAC-SHA256
// ----------------------------------------------------------------------------------------------

TEST(CryptoVectors, Pbkdf2OfRfc7914) {
    // RFC 7914, section 11, "Test Vectors for PBKDF2 with HMAC-SHA-256".
    const struct {
        const char* Password;
        const char* Salt;
        ULONGLONG Iterations;
        const char* Key;
    } vectors[] = {
        {"passwd", "salt", 1,
         "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
         "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783"},
        {"Password", "NaCl", 80000,
         "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
         "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d"},
    };
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    for (const auto& vector : vectors) {
        Bytes password = FromText(vector.Password);
        Bytes salt = FromText(vector.Salt);
        const Bytes whole = FromHex(vector.Key);
        // 64 bytes as published, and the 32 that the program asks for, which are their beginning.
        for (const ULONG length : {64u, 32u}) {
            Bytes key(length);
            EXPECT_EQ(BCryptDeriveKeyPBKDF2(provider.Get(), password.data(), static_cast<ULONG>(password.size()),
                                            salt.data(), static_cast<ULONG>(salt.size()), vector.Iterations, key.data(),
                                            length, 0),
                      0);
            EXPECT_EQ(key, Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length))) << vector.Password;
        }
    }
}

TEST(CryptoVectors, Pbkdf2OfPasswordsRoundABlockOfTheHash) {
    // By Python's hashlib.pbkdf2_hmac("sha256", bytes(range(length)), b"salt", 3, 40): a password of more than 64 bytes
    // is hashed first, and a key of 40 bytes ends within the second block.
    const struct {
        ULONG Length;
        const char* Key;
    } vectors[] = {
        {0, "5ddf839afa2d5fb4be56e1a0f48917617559bef61ec122bfca1c7f75ac8f401d060b470b70403497"},
        {64, "47abb5a895833e0d9f159900e107cf2cf4fbae648b0b4231f23cda25e6a7c7d8b272c94708c498fe"},
        {65, "a49f29e0f3153b764202b10e64123789a4e4237973e28038bdad36b3b80e596bf184a33e7843f7c9"},
    };
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    for (const auto& vector : vectors) {
        Bytes password(vector.Length + 1);
        for (ULONG index = 0; index < vector.Length; ++index) {
            password[index] = static_cast<UCHAR>(index);
        }
        Bytes salt = FromText("salt");
        Bytes key(40);
        EXPECT_EQ(
            BCryptDeriveKeyPBKDF2(provider.Get(), password.data(), vector.Length, salt.data(), 4, 3, key.data(), 40, 0),
            0);
        EXPECT_EQ(key, FromHex(vector.Key)) << vector.Length;
    }
}

// --- AES-256-GCM
// ----------------------------------------------------------------------------------------------------------

struct SealingVector {
    const char* Name;
    const char* Key;
    const char* Nonce;
    const char* Associated;
    const char* Plain;
    const char* Sealed;
    const char* Tag;
};

// Runs a vector in both directions, and once more with a tag that is wrong in one bit.
void CheckSealing(const SealingVector& vector) {
    SCOPED_TRACE(vector.Name);
    const GcmKey key(FromHex(vector.Key));
    Message message{FromHex(vector.Nonce), FromHex(vector.Associated), FromHex(vector.Plain), {}, {}};
    EXPECT_EQ(Seal(key, message), 0);
    EXPECT_EQ(message.Sealed, FromHex(vector.Sealed));
    EXPECT_EQ(message.Tag, FromHex(vector.Tag));
    Bytes opened;
    EXPECT_EQ(Unseal(key, message, opened), 0);
    EXPECT_EQ(opened, message.Plain);
    message.Tag[15] ^= 0x01;
    EXPECT_EQ(Unseal(key, message, opened), authTagMismatch);
}

TEST(CryptoVectors, Aes256GcmOfTheModesSubmission) {
    // D. McGrew and J. Viega, "The Galois/Counter Mode of Operation (GCM)", the submission to NIST that SP 800-38D made
    // a standard of; appendix B, test cases 13 to 16: a 256-bit key and a 96-bit nonce.
    const char* const key = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";
    const char* const noKey = "0000000000000000000000000000000000000000000000000000000000000000";
    const SealingVector vectors[] = {
        {"test case 13", noKey, "000000000000000000000000", "", "", "", "530f8afbc74536b9a963b4f1c4cb738b"},
        {"test case 14", noKey, "000000000000000000000000", "", "00000000000000000000000000000000",
         "cea7403d4d606b6e074ec5d3baf39d18", "d0d1c8a799996bf0265b98b5d48ab919"},
        {"test case 15", key, "cafebabefacedbaddecaf888", "",
         "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
         "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255",
         "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
         "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad",
         "b094dac5d93471bdec1a502270e3cc6c"},
        {"test case 16", key, "cafebabefacedbaddecaf888", "feedfacedeadbeeffeedfacedeadbeefabaddad2",
         "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
         "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39",
         "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
         "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662",
         "76fc6ece0f4e1768cddf8853bb2d551b"},
    };
    for (const SealingVector& vector : vectors) {
        CheckSealing(vector);
    }
}

TEST(CryptoVectors, Aes256GcmOfTheValidationProgram) {
    // NIST Cryptographic Algorithm Validation Program, GCM test vectors, gcmEncryptExtIV256.rsp: the first of those
    // with a 96-bit nonce, a 128-bit tag and no associated data, of an empty plain text and of one of 128 bits.
    const SealingVector vectors[] = {
        {"empty", "b52c505a37d78eda5dd34f20c22540ea1b58963cf8e5bf8ffa85f9f2492505b4", "516c33929df5a3284ff463d7", "",
         "", "", "bdc1ac884d332457a1d2664f168c76f0"},
        {"one block", "31bdadd96698c204aa9ce1448ea94ae1fb4a9a0b3c9d773b51bb1822666b8f22", "0d18e06c7c725ac9e362e1ce",
         "", "2db5168e932556f8089a0622981d017d", "fa4362189661d163fcd6a56d8bf0405a",
         "d636ac1bbedd5cc3ee727dc2ab4a9489"},
    };
    for (const SealingVector& vector : vectors) {
        CheckSealing(vector);
    }
}

} // namespace
