// What the Linux platform does not support it does not pretend to: the process ends and names what was asked for. And
// what has no counterpart here is missing in the way that the program has a path for.
#include "cng.h"
#include "temporary_folder.h"

#include <winioctl.h>

#include <bcrypt.h>
#include <objbase.h>
#include <oleauto.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <cwchar>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "linux_host_calls.h"
#include "snapshot/create_components_guarded.h"

namespace {

class RefusalDeathTest : public TemporaryFolderTest {};

HANDLE OpenWith(DWORD access, DWORD share, DWORD disposition, DWORD flags) {
    return CreateFileW(L"/none", access, share, nullptr, disposition, flags, nullptr);
}

TEST_F(RefusalDeathTest, OpenNamesWhatItDoesNotSupport) {
    EXPECT_DEATH(OpenWith(0, 0, OPEN_EXISTING, 0), "CreateFileW: access 0x0 is not supported");
    EXPECT_DEATH(OpenWith(0x10000000u, 0, OPEN_EXISTING, 0), "CreateFileW: access 0x10000000 is not supported");
    EXPECT_DEATH(OpenWith(GENERIC_READ, FILE_SHARE_DELETE, OPEN_EXISTING, 0), "CreateFileW: share mode 0x4");
    EXPECT_DEATH(OpenWith(GENERIC_READ, 0, OPEN_ALWAYS, 0), "CreateFileW: disposition 0x4");
    EXPECT_DEATH(OpenWith(GENERIC_READ, 0, CREATE_ALWAYS, 0), "CreateFileW: creation without write access");
    EXPECT_DEATH(OpenWith(GENERIC_READ, 0, OPEN_EXISTING, FILE_FLAG_OVERLAPPED), "CreateFileW: flags 0x40000000");
    SECURITY_ATTRIBUTES security{};
    EXPECT_DEATH(CreateFileW(L"/none", GENERIC_READ, 0, &security, OPEN_EXISTING, 0, nullptr),
                 "CreateFileW: a security descriptor");
    MakeFile(L"file", "x");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    EXPECT_DEATH(CreateFileW(L"/none", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, file.Get()),
                 "CreateFileW: a template");
    EXPECT_DEATH(CreateFileW(L"\\\\.\\C:", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                 "CreateFileW: access to the system volume 0x40000000");
}

TEST_F(RefusalDeathTest, TransferNamesWhatItDoesNotSupport) {
    MakeFile(L"file", "x");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    char byte = 0;
    DWORD count = 0;
    OVERLAPPED overlapped{};
    EXPECT_DEATH(ReadFile(file.Get(), &byte, 1, &count, &overlapped), "ReadFile: an overlapped transfer");
    EXPECT_DEATH(WriteFile(file.Get(), &byte, 1, nullptr, nullptr), "WriteFile: a transfer without a count");
    EXPECT_DEATH(SetFilePointerEx(file.Get(), LargeInteger(0), nullptr, 3), "SetFilePointerEx: method 0x3");
}

TEST_F(RefusalDeathTest, MoveNamesWhatItDoesNotSupport) {
    EXPECT_DEATH(MoveFileExW(L"a", L"b", 0), "MoveFileExW: flags 0x0");
    EXPECT_DEATH(MoveFileExW(L"a", L"b", MOVEFILE_WRITE_THROUGH | MOVEFILE_REPLACE_EXISTING), "MoveFileExW: flags 0x9");
}

TEST_F(RefusalDeathTest, DeviceControlNamesWhatItDoesNotSupport) {
    MakeFile(L"file", "x");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    DWORD returned = 0;
    EXPECT_DEATH(DeviceIoControl(file.Get(), 0x8C7D2004u, nullptr, 0, nullptr, 0, &returned, nullptr),
                 "DeviceIoControl: control code 0x8C7D2004");
    OVERLAPPED overlapped{};
    EXPECT_DEATH(DeviceIoControl(file.Get(), 0x8C7D2004u, nullptr, 0, nullptr, 0, &returned, &overlapped),
                 "DeviceIoControl: an overlapped request");
    EXPECT_DEATH(DeviceIoControl(file.Get(), 0x8C7D2004u, nullptr, 0, nullptr, 0, nullptr, nullptr),
                 "DeviceIoControl: a request without a count");
    EXPECT_DEATH(DeviceIoControl(file.Get(), 0x8C7D2004u, &returned, 0, nullptr, 0, &returned, nullptr),
                 "DeviceIoControl: input with control code 0x8C7D2004");
}

TEST_F(RefusalDeathTest, CryptographyNamesWhatItDoesNotSupport) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    EXPECT_DEATH((void)BCryptOpenAlgorithmProvider(&algorithm, L"MD5", nullptr, 0), "algorithm \"MD5\"");
    EXPECT_DEATH((void)BCryptOpenAlgorithmProvider(&algorithm, L"AES", nullptr, BCRYPT_ALG_HANDLE_HMAC_FLAG),
                 "BCryptOpenAlgorithmProvider: flags 0x8");
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0), 0);
    UCHAR secret[32] = {};
    ULONG written = 0;
    BCRYPT_KEY_HANDLE key = nullptr;
    EXPECT_DEATH((void)BCryptGetProperty(algorithm, L"BlockLength", secret, 4, &written, 0),
                 "property \"BlockLength\"");
    std::wstring mode = L"ChainingModeCBC";
    EXPECT_DEATH((void)BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE, reinterpret_cast<PUCHAR>(mode.data()), 32, 0),
                 "chaining mode \"ChainingModeCBC\"");
    EXPECT_DEATH((void)BCryptGenerateSymmetricKey(algorithm, &key, nullptr, 0, secret, 32, 0),
                 "a chaining mode other than GCM");
    EXPECT_DEATH((void)BCryptGenerateSymmetricKey(algorithm, &key, nullptr, 0, secret, 16, 0), "a key of length 0x10");
    EXPECT_EQ(BCryptCloseAlgorithmProvider(algorithm, 0), 0);
    EXPECT_DEATH((void)BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_RNG_ALGORITHM, L"x", 0), "implementation \"x\"");
    const Provider hmac(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    EXPECT_DEATH((void)BCryptCreateHash(hmac.Get(), &key, nullptr, 0, nullptr, 0, 0), "a hash with a secret");
    EXPECT_DEATH((void)BCryptSetProperty(hmac.Get(), BCRYPT_CHAINING_MODE, secret, 32, 0), "property \"ChainingMode\"");
    const Provider aes(BCRYPT_AES_ALGORITHM, 0);
    EXPECT_DEATH((void)BCryptSetProperty(aes.Get(), L"BlockLength", secret, 4, 0), "property \"BlockLength\"");
    EXPECT_DEATH((void)BCryptEncrypt(nullptr, nullptr, 0, nullptr, nullptr, 1, nullptr, 0, &written, 0),
                 "an initialisation vector of length 0x1");
    const GcmKey good(Bytes(32, 1));
    Message message{Bytes(12), {}, {}, {}, Bytes(16)};
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO chained = ModeOf(message);
    chained.dwFlags = 1;
    EXPECT_DEATH((void)BCryptEncrypt(good.Get(), nullptr, 0, &chained, nullptr, 0, nullptr, 0, &written, 0),
                 "chaining of calls, flags 0x1");
}

TEST_F(RefusalDeathTest, CryptographyTakesNoFlags) {
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"BCryptOpenAlgorithmProvider",
         [] {
             BCRYPT_ALG_HANDLE algorithm = nullptr;
             (void)BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_RNG_ALGORITHM, nullptr, 1);
         }},
        {"BCryptGetProperty", [] { (void)BCryptGetProperty(nullptr, nullptr, nullptr, 0, nullptr, 1); }},
        {"BCryptSetProperty", [] { (void)BCryptSetProperty(nullptr, nullptr, nullptr, 0, 1); }},
        {"BCryptCloseAlgorithmProvider", [] { (void)BCryptCloseAlgorithmProvider(nullptr, 1); }},
        {"BCryptCreateHash", [] { (void)BCryptCreateHash(nullptr, nullptr, nullptr, 0, nullptr, 0, 1); }},
        {"BCryptHashData", [] { (void)BCryptHashData(nullptr, nullptr, 0, 1); }},
        {"BCryptFinishHash", [] { (void)BCryptFinishHash(nullptr, nullptr, 0, 1); }},
        {"BCryptGenRandom", [] { (void)BCryptGenRandom(nullptr, nullptr, 0, 1); }},
        {"BCryptDeriveKeyPBKDF2",
         [] { (void)BCryptDeriveKeyPBKDF2(nullptr, nullptr, 0, nullptr, 0, 1, nullptr, 0, 1); }},
        {"BCryptGenerateSymmetricKey",
         [] { (void)BCryptGenerateSymmetricKey(nullptr, nullptr, nullptr, 0, nullptr, 0, 1); }},
        {"BCryptDecrypt",
         [] { (void)BCryptDecrypt(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr, 0, nullptr, 1); }},
    };
    for (const auto& [name, call] : calls) {
        EXPECT_DEATH(call(), std::string(name) + ": flags 0x1 is not supported");
    }
}

TEST_F(RefusalDeathTest, RuntimeNamesWhatItDoesNotSupport) {
    FILE* stream = nullptr;
    EXPECT_DEATH(fopen_s(&stream, "file", "w"), "fopen_s: mode \"w\"");
    EXPECT_DEATH(_fullpath(nullptr, "file", 260), "_fullpath: a result without a buffer");
    EXPECT_DEATH(CoInitializeEx(nullptr, 0x10), "CoInitializeEx: flags 0x10");
}

struct Security {
    PSECURITY_DESCRIPTOR Descriptor = nullptr;
    LONG ServiceCount = -1;
    SOLE_AUTHENTICATION_SERVICE* Services = nullptr;
    void* Reserved1 = nullptr;
    DWORD Authentication = RPC_C_AUTHN_LEVEL_PKT_PRIVACY;
    DWORD Impersonation = RPC_C_IMP_LEVEL_IMPERSONATE;
    void* List = nullptr;
    DWORD Capabilities = EOAC_NONE;
    void* Reserved3 = nullptr;
};

HRESULT Initialise(const Security& security) {
    return CoInitializeSecurity(security.Descriptor, security.ServiceCount, security.Services, security.Reserved1,
                                security.Authentication, security.Impersonation, security.List, security.Capabilities,
                                security.Reserved3);
}

TEST_F(RefusalDeathTest, SecurityNamesWhatItDoesNotSupport) {
    int something = 0;
    void* const pointer = &something;
    for (const Security& security : {Security{.Descriptor = pointer}, Security{.ServiceCount = 0},
                                     Security{.Services = static_cast<SOLE_AUTHENTICATION_SERVICE*>(pointer)},
                                     Security{.List = pointer}, Security{.Capabilities = 2}}) {
        EXPECT_DEATH((void)Initialise(security), "CoInitializeSecurity: security of one's own, capabilities 0x");
    }
    for (const Security& security : {Security{.Authentication = 1}, Security{.Impersonation = 1}}) {
        EXPECT_DEATH((void)Initialise(security), "CoInitializeSecurity: authentication level 0x");
    }
    EXPECT_EQ(Initialise({.Reserved1 = pointer}), E_INVALIDARG);
    EXPECT_EQ(Initialise({.Reserved3 = pointer}), E_INVALIDARG);
}

TEST(SecurityOnLinux, IsSettledOnceAsLongAsThereIsAnApartment) {
    EXPECT_EQ(Initialise({}), CO_E_NOTINITIALIZED);
    for (int time = 0; time < 2; time++) {
        ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
        EXPECT_EQ(Initialise({}), S_OK);
        CoUninitialize();
        EXPECT_EQ(Initialise({}), RPC_E_TOO_LATE);
        CoUninitialize();
    }
}

TEST(RuntimeOnLinux, FreedMemoryIsGivenBack) {
    const std::wstring text(1 << 20, L'x');
    const size_t before = mallinfo2().hblkhd;
    SysFreeString(SysAllocString(text.c_str()));
    _aligned_free(_aligned_malloc(4 << 20, 4096));
    EXPECT_EQ(mallinfo2().hblkhd, before);
}

TEST(RuntimeOnLinux, NothingBehindAStringIsRead) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    auto* const end = static_cast<wchar_t*>(pages) + page / sizeof(wchar_t);
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    const BSTR string = SysAllocString(std::wmemcpy(end - 3, L"ab", 3));
    EXPECT_STREQ(string, L"ab");
    SysFreeString(string);
    EXPECT_EQ(munmap(pages, 2 * page), 0);
}

TEST(RuntimeOnLinux, CallsTellWhatIsWrongAndWriteNoFurtherThanTheirResult) {
    FILE* stream = nullptr;
    EXPECT_EQ(fopen_s(nullptr, "file", "rb"), EINVAL);
    EXPECT_EQ(fopen_s(&stream, nullptr, "rb"), EINVAL);
    EXPECT_EQ(fopen_s(&stream, "file", nullptr), EINVAL);
    errno = 0;
    EXPECT_EQ(_aligned_malloc(SIZE_MAX / 2, 4096), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    char buffer[] = "????";
    EXPECT_STREQ(_fullpath(buffer, "/a", 4), "/a");
    EXPECT_EQ(buffer[3], '?');
    EXPECT_EQ(_stricmp("AZ", "az"), 0);
    EXPECT_LT(_stricmp("[", "{"), 0);
    timespec now{};
    ASSERT_EQ(clock_gettime(CLOCK_BOOTTIME, &now), 0);
    EXPECT_LT(GetTickCount64() - static_cast<ULONGLONG>(now.tv_sec) * 1000, 5'000u);
}

TEST(AbsenceOnLinux, ChangeTrackerDoesNotOpen) {
    EXPECT_EQ(
        ErrorOf(CreateFileW(L"\\\\.\\Wendrel", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr)),
        ERROR_FILE_NOT_FOUND);
}

TEST(AbsenceOnLinux, NoVolumesAreEnumerated) {
    WCHAR name[260] = {};
    EXPECT_EQ(ErrorOf(FindFirstVolumeW(name, 260)), ERROR_NO_MORE_FILES);
    EXPECT_EQ(ErrorOf(FindNextVolumeW(INVALID_HANDLE_VALUE, name, 260)), ERROR_INVALID_HANDLE);
    EXPECT_EQ(ErrorOf(FindVolumeClose(INVALID_HANDLE_VALUE)), ERROR_INVALID_HANDLE);
}

TEST(AbsenceOnLinux, ShadowCopyLibraryIsMissing) {
    IVssBackupComponents* components = nullptr;
    EXPECT_ANY_THROW((void)CreateVssBackupComponentsInternal(&components));
    VSS_SNAPSHOT_PROP properties{};
    EXPECT_ANY_THROW(VssFreeSnapshotPropertiesInternal(&properties));
    components = reinterpret_cast<IVssBackupComponents*>(&properties);
    EXPECT_EQ(vornix::CreateComponentsGuarded(&components), static_cast<HRESULT>(0x8007007Eu));
    EXPECT_EQ(components, nullptr);
}

TEST(AbsenceOnLinux, FullPathThatDoesNotFitSaysSo) {
    char buffer[2];
    errno = 0;
    EXPECT_EQ(_fullpath(buffer, "/ab", sizeof buffer), nullptr);
    EXPECT_EQ(errno, ERANGE);
}

TEST(CryptoOnLinux, WhatACallCannotTakeHasItsStatus) {
    const Provider sha(BCRYPT_SHA256_ALGORITHM, 0);
    const Provider hmac(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    const Provider aes(BCRYPT_AES_ALGORITHM, 0);
    const Provider random(BCRYPT_RNG_ALGORITHM, 0);
    UCHAR bytes[64] = {};
    ULONG written = 0;
    BCRYPT_HANDLE handle = nullptr;
    EXPECT_EQ(BCryptOpenAlgorithmProvider(nullptr, BCRYPT_RNG_ALGORITHM, nullptr, 0), invalidParameter);
    EXPECT_EQ(BCryptGetProperty(sha.Get(), nullptr, bytes, 4, &written, 0), invalidParameter);
    EXPECT_EQ(BCryptSetProperty(aes.Get(), nullptr, bytes, 4, 0), invalidParameter);
    std::wstring longer = L"ChainingModeGCMx";
    EXPECT_EQ(BCryptSetProperty(aes.Get(), BCRYPT_CHAINING_MODE, reinterpret_cast<PUCHAR>(longer.data()), 30, 0), 0);

    EXPECT_EQ(BCryptCreateHash(sha.Get(), nullptr, nullptr, 0, nullptr, 0, 0), invalidParameter);
    EXPECT_EQ(BCryptCreateHash(aes.Get(), &handle, nullptr, 0, nullptr, 0, 0), invalidParameter);
    EXPECT_EQ(BCryptCreateHash(sha.Get(), &handle, nullptr, 64, nullptr, 0, 0), invalidParameter);
    EXPECT_EQ(BCryptCreateHash(sha.Get(), &handle, bytes, 8, nullptr, 0, 0), bufferTooSmall);
    ASSERT_EQ(BCryptCreateHash(sha.Get(), &handle, bytes, 64, nullptr, 0, 0), 0);
    UCHAR digest[32];
    EXPECT_EQ(BCryptHashData(handle, nullptr, 1, 0), invalidParameter);
    EXPECT_EQ(BCryptFinishHash(handle, nullptr, 32, 0), invalidParameter);
    EXPECT_EQ(BCryptFinishHash(handle, digest, 32, 0), 0);
    EXPECT_EQ(BCryptFinishHash(handle, digest, 32, 0), invalidParameter);
    EXPECT_EQ(BCryptHashData(handle, digest, 32, 0), invalidParameter);
    EXPECT_EQ(BCryptDestroyHash(handle), 0);
    EXPECT_EQ(BCryptDestroyHash(handle), invalidHandle);

    EXPECT_EQ(BCryptGenRandom(nullptr, bytes, 8, 0), invalidHandle);
    EXPECT_EQ(BCryptGenRandom(sha.Get(), bytes, 8, 0), invalidHandle);
    EXPECT_EQ(BCryptGenRandom(random.Get(), nullptr, 1, 0), invalidParameter);
    EXPECT_EQ(BCryptGenRandom(random.Get(), nullptr, 0, 0), 0);
    const struct {
        PUCHAR Password;
        ULONG PasswordLength;
        PUCHAR Salt;
        ULONG SaltLength;
        ULONG KeyLength;
        NTSTATUS Status;
    } derivations[] = {
        {nullptr, 0, nullptr, 0, 1, 0},
        {nullptr, 1, bytes, 8, 8, invalidParameter},
        {bytes, 8, nullptr, 1, 8, invalidParameter},
        {bytes, 8, bytes, 8, 0, invalidParameter},
    };
    for (const auto& row : derivations) {
        EXPECT_EQ(BCryptDeriveKeyPBKDF2(hmac.Get(), row.Password, row.PasswordLength, row.Salt, row.SaltLength, 1,
                                        digest, row.KeyLength, 0),
                  row.Status)
            << row.PasswordLength << ' ' << row.SaltLength << ' ' << row.KeyLength;
    }
    EXPECT_EQ(BCryptGenerateSymmetricKey(nullptr, &handle, nullptr, 0, bytes, 32, 0), invalidHandle);
    EXPECT_EQ(BCryptGenerateSymmetricKey(sha.Get(), &handle, nullptr, 0, bytes, 32, 0), invalidHandle);
    EXPECT_EQ(BCryptGenerateSymmetricKey(aes.Get(), nullptr, nullptr, 0, bytes, 32, 0), invalidParameter);
    EXPECT_EQ(BCryptGenerateSymmetricKey(aes.Get(), &handle, nullptr, 0, nullptr, 32, 0), invalidParameter);
}

TEST(CryptoOnLinux, ModeThatLacksSomethingIsRefused) {
    using Mode = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO;
    const GcmKey key(Bytes(32, 1));
    Message message{Bytes(12), Bytes(4), Bytes(8), Bytes(8), Bytes(17)};
    const auto encrypt = [&](const std::function<void(Mode&)>& change, PUCHAR input) {
        Mode mode = ModeOf(message);
        mode.cbTag = 12;
        change(mode);
        ULONG written = 0;
        return BCryptEncrypt(key.Get(), input, 8, &mode, nullptr, 0, message.Sealed.data(), 8, &written, 0);
    };
    const std::function<void(Mode&)> changes[] = {
        [](Mode& mode) { mode.pbNonce = nullptr; }, [](Mode& mode) { mode.cbNonce = 11; },
        [](Mode& mode) { mode.pbTag = nullptr; },   [](Mode& mode) { mode.cbTag = 11; },
        [](Mode& mode) { mode.cbTag = 17; },        [](Mode& mode) { mode.pbAuthData = nullptr; },
    };
    for (const auto& change : changes) {
        EXPECT_EQ(encrypt(change, message.Plain.data()), invalidParameter) << &change - changes;
    }
    EXPECT_EQ(encrypt([](Mode&) {}, nullptr), invalidParameter);
    EXPECT_EQ(encrypt([](Mode&) {}, message.Plain.data()), 0);
}

TEST(CryptoOnLinux, EveryByteThatIsAskedForIsDrawn) {
    const Provider random(BCRYPT_RNG_ALGORITHM, 0);
    Bytes bytes(32);
    for (UCHAR& byte : bytes) {
        EXPECT_EQ(BCryptGenRandom(random.Get(), &byte, 1, 0), 0);
    }
    EXPECT_NE(bytes, Bytes(32));
}

// The providers that are missing where the library is set up to show no algorithm, a bit each.
int FindMissing() {
    const int settings = memfd_create("settings", 0);
    dprintf(settings, "openssl_conf = all\n[all]\nalg_section = own\n[own]\ndefault_properties = fips=yes\n");
    EXPECT_EQ(setenv("OPENSSL_CONF", ("/proc/self/fd/" + std::to_string(settings)).c_str(), 1), 0);
    const std::pair<LPCWSTR, ULONG> providers[] = {{BCRYPT_SHA256_ALGORITHM, 0},
                                                   {BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG},
                                                   {BCRYPT_AES_ALGORITHM, 0},
                                                   {BCRYPT_RNG_ALGORITHM, 0}};
    int missing = 0;
    for (const auto& [id, flags] : providers) {
        BCRYPT_ALG_HANDLE handle = nullptr;
        const NTSTATUS status = BCryptOpenAlgorithmProvider(&handle, id, nullptr, flags);
        if (status == 0) {
            EXPECT_EQ(BCryptCloseAlgorithmProvider(handle, 0), 0);
        }
        missing = missing << 1 | (status == static_cast<NTSTATUS>(0xC0000225u) ? 1 : 0);
    }
    return missing;
}

TEST_F(RefusalDeathTest, CryptographyThatTheLibraryLacksHasNoProvider) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process anew, for what one has used it keeps
    const std::string before = std::filesystem::temp_directory_path().string();
    EXPECT_EQ(setenv("TMPDIR", Folder().c_str(), 1), 0); // of which that process removes nothing
    EXPECT_EXIT(exit(FindMissing()), testing::ExitedWithCode(0b1110), "");
    EXPECT_EQ(setenv("TMPDIR", before.c_str(), 1), 0);
}

TEST(CryptoOnLinux, MemoryIsHiddenBeforeAKeyIsInIt) {
    const struct {
        LPCWSTR Id;
        ULONG Flags;
        int IsOpenToOthers;
    } rows[] = {{BCRYPT_SHA256_ALGORITHM, 0, 1},
                {BCRYPT_RNG_ALGORITHM, 0, 1},
                {BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG, 0},
                {BCRYPT_AES_ALGORITHM, 0, 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(InChild([&] {
                      (void)prctl(PR_SET_DUMPABLE, 1);
                      const Provider provider(row.Id, row.Flags);
                      return prctl(PR_GET_DUMPABLE);
                  }),
                  row.IsOpenToOthers)
            << &row - rows;
    }
}

TEST(CryptoOnLinux, WhatIsMadeIsGivenBack) {
    const Provider sha(BCRYPT_SHA256_ALGORITHM, 0);
    const Provider hmac(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    const Provider aes(BCRYPT_AES_ALGORITHM, 0);
    std::wstring mode = BCRYPT_CHAIN_MODE_GCM;
    ASSERT_EQ(BCryptSetProperty(aes.Get(), BCRYPT_CHAINING_MODE, reinterpret_cast<PUCHAR>(mode.data()), 32, 0), 0);
    const auto makeAll = [&] {
        BCRYPT_HANDLE handle = nullptr;
        UCHAR secret[32] = {};
        EXPECT_EQ(BCryptCreateHash(sha.Get(), &handle, nullptr, 0, nullptr, 0, 0), 0);
        EXPECT_EQ(BCryptDestroyHash(handle), 0);
        EXPECT_EQ(BCryptDeriveKeyPBKDF2(hmac.Get(), secret, 8, secret, 8, 1, secret, 32, 0), 0);
        EXPECT_EQ(BCryptGenerateSymmetricKey(aes.Get(), &handle, nullptr, 0, secret, 32, 0), 0);
        EXPECT_EQ(BCryptDestroyKey(handle), 0);
    };
    makeAll();
    const size_t before = mallinfo2().uordblks;
    for (int time = 0; time < 100; time++) {
        makeAll();
    }
    EXPECT_LT(mallinfo2().uordblks, before + 100 * sizeof(void*));
}

TEST(CryptoOnLinux, UnauthenticatedBytesAreWipedFromTheOutput) {
    const GcmKey key(Bytes(32, 1));
    Message message{Bytes(12), {}, {}, Bytes(100, 5), Bytes(16)};
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode = ModeOf(message);
    Bytes plain(100, 0xEE);
    ULONG written = 99;
    EXPECT_EQ(BCryptDecrypt(key.Get(), message.Sealed.data(), 100, &mode, nullptr, 0, plain.data(), 100, &written, 0),
              authTagMismatch);
    EXPECT_EQ(plain, Bytes(100));
    EXPECT_EQ(written, 0u);
}

} // namespace
