// The part of the Windows SDK's <bcrypt.h> (CNG) that the program uses: SHA-256, HMAC-SHA-256 for PBKDF2, random
// bytes and AES in GCM mode. Declarations only.
#pragma once

#include <windows.h>

typedef PVOID BCRYPT_HANDLE;
typedef PVOID BCRYPT_ALG_HANDLE;
typedef PVOID BCRYPT_KEY_HANDLE;
typedef PVOID BCRYPT_HASH_HANDLE;

#define BCRYPT_SUCCESS(status) (static_cast<NTSTATUS>(status) >= 0)

#define BCRYPT_AES_ALGORITHM L"AES"
#define BCRYPT_RNG_ALGORITHM L"RNG"
#define BCRYPT_SHA256_ALGORITHM L"SHA256"

#define BCRYPT_OBJECT_LENGTH L"ObjectLength"
#define BCRYPT_CHAINING_MODE L"ChainingMode"
#define BCRYPT_CHAIN_MODE_GCM L"ChainingModeGCM"

#define BCRYPT_ALG_HANDLE_HMAC_FLAG 0x00000008u

#define BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION 1u

typedef struct _BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO {
    ULONG cbSize;
    ULONG dwInfoVersion;
    PUCHAR pbNonce;
    ULONG cbNonce;
    PUCHAR pbAuthData;
    ULONG cbAuthData;
    PUCHAR pbTag;
    ULONG cbTag;
    PUCHAR pbMacContext;
    ULONG cbMacContext;
    ULONG cbAAD;
    ULONGLONG cbData;
    ULONG dwFlags;
} BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, *PBCRYPT_AUTHENTICATED_CIPHER_MODE_INFO;

extern "C" {

NTSTATUS WINAPI BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR id, LPCWSTR implementation,
                                            ULONG flags);
NTSTATUS WINAPI BCryptGetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG length, ULONG* written,
                                  ULONG flags);
NTSTATUS WINAPI BCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG length, ULONG flags);
NTSTATUS WINAPI BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags);
NTSTATUS WINAPI BCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE* hash, PUCHAR object,
                                 ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags);
NTSTATUS WINAPI BCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG length, ULONG flags);
NTSTATUS WINAPI BCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG length, ULONG flags);
NTSTATUS WINAPI BCryptDestroyHash(BCRYPT_HASH_HANDLE hash);
NTSTATUS WINAPI BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG length, ULONG flags);
NTSTATUS WINAPI BCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                      ULONG saltLength, ULONGLONG iterations, PUCHAR key, ULONG keyLength, ULONG flags);
NTSTATUS WINAPI BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE* key, PUCHAR object,
                                           ULONG objectLength, PUCHAR secret, ULONG secretLength, ULONG flags);
NTSTATUS WINAPI BCryptDestroyKey(BCRYPT_KEY_HANDLE key);
NTSTATUS WINAPI BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, VOID* padding, PUCHAR iv,
                              ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG* written, ULONG flags);
NTSTATUS WINAPI BCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, VOID* padding, PUCHAR iv,
                              ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG* written, ULONG flags);

} // extern "C"
