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

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <string>

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
