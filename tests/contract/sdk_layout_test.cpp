// Sizes, offsets and constants of the Windows SDK as the program relies on them. Compiled against the declarations of
// the Linux build and against those of mingw-w64 alike, so that these are the judge of ours: what is wrong here does
// not compile on one of the two.
#include <gtest/gtest.h>

#include <windows.h>

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
#include <string.h>

#include <cstddef>
#include <string_view>
#include <type_traits>

namespace {

// A constant by its bits, whatever type the header gives it.
template <typename Value>
constexpr unsigned Bits(Value value) {
    return static_cast<unsigned>(value);
}

// Base types
static_assert(sizeof(BYTE) == 1 && sizeof(UCHAR) == 1 && sizeof(boolean) == 1);
static_assert(sizeof(WORD) == 2 && sizeof(USHORT) == 2);
static_assert(sizeof(DWORD) == 4 && std::is_unsigned_v<DWORD>);
static_assert(sizeof(ULONG) == 4 && std::is_unsigned_v<ULONG>);
static_assert(sizeof(LONG) == 4 && std::is_signed_v<LONG>);
static_assert(sizeof(BOOL) == 4 && std::is_signed_v<BOOL>);
static_assert(sizeof(UINT) == 4 && std::is_unsigned_v<UINT>);
static_assert(sizeof(HRESULT) == 4 && std::is_signed_v<HRESULT>);
static_assert(sizeof(NTSTATUS) == 4 && std::is_signed_v<NTSTATUS>);
static_assert(sizeof(ULONGLONG) == 8 && std::is_unsigned_v<ULONGLONG>);
static_assert(sizeof(LONGLONG) == 8 && std::is_signed_v<LONGLONG>);
static_assert(std::is_same_v<ULONGLONG, unsigned long long> && std::is_same_v<LONGLONG, long long>);
static_assert(sizeof(HANDLE) == 8 && std::is_same_v<HANDLE, void*>);
static_assert(std::is_same_v<WCHAR, wchar_t> && std::is_same_v<BSTR, wchar_t*>);
static_assert(std::is_same_v<LPCWSTR, const wchar_t*> && std::is_same_v<LPCSTR, const char*>);
static_assert(MAX_PATH == 260 && TRUE == 1 && FALSE == 0 && INFINITE == 0xFFFFFFFF);

static_assert(sizeof(LARGE_INTEGER) == 8);
static_assert(offsetof(LARGE_INTEGER, u.LowPart) == 0 && offsetof(LARGE_INTEGER, u.HighPart) == 4);

static_assert(sizeof(GUID) == 16 && sizeof(VSS_ID) == 16);
static_assert(offsetof(GUID, Data1) == 0 && offsetof(GUID, Data2) == 4);
static_assert(offsetof(GUID, Data3) == 6 && offsetof(GUID, Data4) == 8);

// CreateFileW
static_assert(Bits(GENERIC_READ) == 0x80000000 && Bits(GENERIC_WRITE) == 0x40000000);
static_assert(FILE_SHARE_READ == 1 && FILE_SHARE_WRITE == 2 && FILE_SHARE_DELETE == 4);
static_assert(CREATE_NEW == 1 && CREATE_ALWAYS == 2 && OPEN_EXISTING == 3);
static_assert(FILE_ATTRIBUTE_READONLY == 0x1 && FILE_ATTRIBUTE_DIRECTORY == 0x10 && FILE_ATTRIBUTE_NORMAL == 0x80);
static_assert(Bits(FILE_FLAG_NO_BUFFERING) == 0x20000000 && Bits(FILE_FLAG_SEQUENTIAL_SCAN) == 0x08000000);
static_assert(Bits(INVALID_FILE_ATTRIBUTES) == 0xFFFFFFFF);
static_assert(FILE_BEGIN == 0 && FILE_CURRENT == 1 && FILE_END == 2);
static_assert(MOVEFILE_REPLACE_EXISTING == 1 && MOVEFILE_COPY_ALLOWED == 2 && MOVEFILE_WRITE_THROUGH == 8);

// Errors
static_assert(ERROR_SUCCESS == 0 && ERROR_INVALID_FUNCTION == 1 && ERROR_FILE_NOT_FOUND == 2);
static_assert(ERROR_PATH_NOT_FOUND == 3 && ERROR_TOO_MANY_OPEN_FILES == 4 && ERROR_ACCESS_DENIED == 5);
static_assert(ERROR_INVALID_HANDLE == 6 && ERROR_NOT_ENOUGH_MEMORY == 8 && ERROR_NOT_SAME_DEVICE == 17);
static_assert(ERROR_NO_MORE_FILES == 18 && ERROR_WRITE_PROTECT == 19 && ERROR_NOT_READY == 21 && ERROR_CRC == 23);
static_assert(ERROR_BAD_LENGTH == 24 && ERROR_SECTOR_NOT_FOUND == 27 && ERROR_GEN_FAILURE == 31);
static_assert(ERROR_SHARING_VIOLATION == 32 && ERROR_HANDLE_EOF == 38 && ERROR_NOT_SUPPORTED == 50);
static_assert(ERROR_DEV_NOT_EXIST == 55 && ERROR_FILE_EXISTS == 80 && ERROR_INVALID_PARAMETER == 87);
static_assert(ERROR_DISK_FULL == 112 && ERROR_SEM_TIMEOUT == 121 && ERROR_INSUFFICIENT_BUFFER == 122);
static_assert(ERROR_INVALID_NAME == 123 && ERROR_MOD_NOT_FOUND == 126 && ERROR_NEGATIVE_SEEK == 131);
static_assert(ERROR_BUSY == 170 && ERROR_ALREADY_EXISTS == 183 && ERROR_FILENAME_EXCED_RANGE == 206);
static_assert(ERROR_FILE_TOO_LARGE == 223 && ERROR_MORE_DATA == 234 && ERROR_OPERATION_ABORTED == 995);
static_assert(ERROR_NOACCESS == 998 && ERROR_UNRECOGNIZED_VOLUME == 1005 && ERROR_IO_DEVICE == 1117);
static_assert(ERROR_DEVICE_NOT_CONNECTED == 1167);
static_assert(ERROR_CANT_RESOLVE_FILENAME == 1921);

static_assert(S_OK == 0 && S_FALSE == 1);
static_assert(Bits(E_UNEXPECTED) == 0x8000FFFF && Bits(E_NOTIMPL) == 0x80004001);
static_assert(Bits(E_NOINTERFACE) == 0x80004002 && Bits(E_POINTER) == 0x80004003 && Bits(E_ABORT) == 0x80004004);
static_assert(Bits(E_FAIL) == 0x80004005 && Bits(E_ACCESSDENIED) == 0x80070005);
static_assert(Bits(E_OUTOFMEMORY) == 0x8007000E && Bits(E_INVALIDARG) == 0x80070057);
static_assert(Bits(CO_E_NOTINITIALIZED) == 0x800401F0);
static_assert(Bits(RPC_E_CHANGED_MODE) == 0x80010106 && Bits(RPC_E_TOO_LATE) == 0x80010119);
static_assert(FAILED(E_FAIL) && !FAILED(S_FALSE) && SUCCEEDED(S_FALSE) && !SUCCEEDED(E_FAIL));

// Device control
static_assert(Bits(IOCTL_DISK_GET_LENGTH_INFO) == 0x0007405C);
static_assert(Bits(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX) == 0x000700A0);
static_assert(Bits(IOCTL_DISK_UPDATE_PROPERTIES) == 0x00070140);
static_assert(Bits(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS) == 0x00560000);
static_assert(Bits(CTL_CODE(0x8C7D, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS)) == 0x8C7D2004);

static_assert(sizeof(GET_LENGTH_INFORMATION) == 8);
static_assert(sizeof(DISK_GEOMETRY) == 24);
static_assert(offsetof(DISK_GEOMETRY, Cylinders) == 0 && offsetof(DISK_GEOMETRY, MediaType) == 8);
static_assert(offsetof(DISK_GEOMETRY, TracksPerCylinder) == 12 && offsetof(DISK_GEOMETRY, SectorsPerTrack) == 16);
static_assert(offsetof(DISK_GEOMETRY, BytesPerSector) == 20);
static_assert(sizeof(DISK_GEOMETRY_EX) == 40);
static_assert(offsetof(DISK_GEOMETRY_EX, Geometry) == 0 && offsetof(DISK_GEOMETRY_EX, DiskSize) == 24);
static_assert(offsetof(DISK_GEOMETRY_EX, Data) == 32);
static_assert(RemovableMedia == 11 && FixedMedia == 12);
static_assert(sizeof(DISK_EXTENT) == 24);
static_assert(offsetof(DISK_EXTENT, DiskNumber) == 0 && offsetof(DISK_EXTENT, StartingOffset) == 8);
static_assert(offsetof(DISK_EXTENT, ExtentLength) == 16);
static_assert(sizeof(VOLUME_DISK_EXTENTS) == 32);
static_assert(offsetof(VOLUME_DISK_EXTENTS, NumberOfDiskExtents) == 0 && offsetof(VOLUME_DISK_EXTENTS, Extents) == 8);

// CNG
static_assert(std::is_same_v<BCRYPT_ALG_HANDLE, void*> && std::is_same_v<BCRYPT_HASH_HANDLE, void*>);
static_assert(std::is_same_v<BCRYPT_KEY_HANDLE, void*>);
static_assert(BCRYPT_ALG_HANDLE_HMAC_FLAG == 8 && BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION == 1);
static_assert(std::wstring_view(BCRYPT_SHA256_ALGORITHM) == L"SHA256");
static_assert(std::wstring_view(BCRYPT_RNG_ALGORITHM) == L"RNG");
static_assert(std::wstring_view(BCRYPT_AES_ALGORITHM) == L"AES");
static_assert(std::wstring_view(BCRYPT_OBJECT_LENGTH) == L"ObjectLength");
static_assert(std::wstring_view(BCRYPT_CHAINING_MODE) == L"ChainingMode");
static_assert(std::wstring_view(BCRYPT_CHAIN_MODE_GCM) == L"ChainingModeGCM");
static_assert(sizeof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO) == 88);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbSize) == 0);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, dwInfoVersion) == 4);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, pbNonce) == 8);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbNonce) == 16);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, pbAuthData) == 24);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbAuthData) == 32);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, pbTag) == 40);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbTag) == 48);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, pbMacContext) == 56);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbMacContext) == 64);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbAAD) == 68);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, cbData) == 72);
static_assert(offsetof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO, dwFlags) == 80);

// COM
static_assert(COINIT_MULTITHREADED == 0 && COINIT_APARTMENTTHREADED == 2);
static_assert(COINIT_DISABLE_OLE1DDE == 4 && COINIT_SPEED_OVER_MEMORY == 8);
static_assert(RPC_C_AUTHN_LEVEL_DEFAULT == 0 && RPC_C_AUTHN_LEVEL_PKT_PRIVACY == 6);
static_assert(RPC_C_IMP_LEVEL_DEFAULT == 0 && RPC_C_IMP_LEVEL_IMPERSONATE == 3 && EOAC_NONE == 0);
static_assert(sizeof(SOLE_AUTHENTICATION_SERVICE) == 24);

// The Volume Shadow Copy service
static_assert(Bits(VSS_E_BAD_STATE) == 0x80042301 && Bits(VSS_E_OBJECT_NOT_FOUND) == 0x80042308);
static_assert(Bits(VSS_S_ASYNC_PENDING) == 0x00042309 && Bits(VSS_S_ASYNC_FINISHED) == 0x0004230A);
static_assert(Bits(VSS_S_ASYNC_CANCELLED) == 0x0004230B);
static_assert(VSS_CTX_BACKUP == 0 && VSS_BT_COPY == 5 && VSS_OBJECT_SNAPSHOT_SET == 2 && VSS_OBJECT_SNAPSHOT == 3);
static_assert(VSS_WS_STABLE == 1 && VSS_WS_WAITING_FOR_BACKUP_COMPLETE == 5 && VSS_WS_FAILED_AT_IDENTIFY == 6);
static_assert(VSS_WS_FAILED_AT_BACKUPSHUTDOWN == 15 && VSS_SS_CREATED == 12 && VSS_RTYPE_OTHER == 3);
static_assert(VSS_CT_FILEGROUP == 2 && VSS_RS_FAILED == 3);
static_assert(sizeof(VSS_OBJECT_TYPE) == 4 && sizeof(VSS_WRITER_STATE) == 4 && sizeof(VSS_BACKUP_TYPE) == 4);
static_assert(sizeof(VSS_SNAPSHOT_PROP) == 128);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_SnapshotId) == 0 && offsetof(VSS_SNAPSHOT_PROP, m_SnapshotSetId) == 16);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_lSnapshotsCount) == 32);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_pwszSnapshotDeviceObject) == 40);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_pwszOriginalVolumeName) == 48);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_pwszOriginatingMachine) == 56);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_pwszServiceMachine) == 64);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_pwszExposedName) == 72);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_pwszExposedPath) == 80);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_ProviderId) == 88);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_lSnapshotAttributes) == 104);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_tsCreationTimestamp) == 112);
static_assert(offsetof(VSS_SNAPSHOT_PROP, m_eStatus) == 120);

// The signatures of all calls, from the one list of them.
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    static_assert(std::is_same_v<decltype(name), result convention parameters>);
#include "../../platform/calls.def"
#undef VORNIX_CALL

// The place of a method in the interface's table, which is its address for the caller. A pointer to a virtual method
// holds, in the ABI of both toolchains, the offset of its place plus one.
template <typename Method>
size_t PlaceOf(Method method) {
    size_t words[sizeof(Method) / sizeof(size_t)];
    memcpy(words, &method, sizeof method);
    return (words[0] - 1) / sizeof(void*);
}

// That of mingw-w64 adds a template of the same name.
using QueryMethod = HRESULT (STDMETHODCALLTYPE IVssBackupComponents::*)(REFIID, void**);

} // namespace

TEST(SdkLayout, MethodsOfBackupComponentsStandInPublishedOrder) {
    size_t place = 0;
    for (const size_t actual : {
             PlaceOf<QueryMethod>(&IVssBackupComponents::QueryInterface),
             PlaceOf(&IVssBackupComponents::AddRef),
             PlaceOf(&IVssBackupComponents::Release),
             PlaceOf(&IVssBackupComponents::GetWriterComponentsCount),
             PlaceOf(&IVssBackupComponents::GetWriterComponents),
             PlaceOf(&IVssBackupComponents::InitializeForBackup),
             PlaceOf(&IVssBackupComponents::SetBackupState),
             PlaceOf(&IVssBackupComponents::InitializeForRestore),
             PlaceOf(&IVssBackupComponents::SetRestoreState),
             PlaceOf(&IVssBackupComponents::GatherWriterMetadata),
             PlaceOf(&IVssBackupComponents::GetWriterMetadataCount),
             PlaceOf(&IVssBackupComponents::GetWriterMetadata),
             PlaceOf(&IVssBackupComponents::FreeWriterMetadata),
             PlaceOf(&IVssBackupComponents::AddComponent),
             PlaceOf(&IVssBackupComponents::PrepareForBackup),
             PlaceOf(&IVssBackupComponents::AbortBackup),
             PlaceOf(&IVssBackupComponents::GatherWriterStatus),
             PlaceOf(&IVssBackupComponents::GetWriterStatusCount),
             PlaceOf(&IVssBackupComponents::FreeWriterStatus),
             PlaceOf(&IVssBackupComponents::GetWriterStatus),
             PlaceOf(&IVssBackupComponents::SetBackupSucceeded),
             PlaceOf(&IVssBackupComponents::SetBackupOptions),
             PlaceOf(&IVssBackupComponents::SetSelectedForRestore),
             PlaceOf(&IVssBackupComponents::SetRestoreOptions),
             PlaceOf(&IVssBackupComponents::SetAdditionalRestores),
             PlaceOf(&IVssBackupComponents::SetPreviousBackupStamp),
             PlaceOf(&IVssBackupComponents::SaveAsXML),
             PlaceOf(&IVssBackupComponents::BackupComplete),
             PlaceOf(&IVssBackupComponents::AddAlternativeLocationMapping),
             PlaceOf(&IVssBackupComponents::AddRestoreSubcomponent),
             PlaceOf(&IVssBackupComponents::SetFileRestoreStatus),
             PlaceOf(&IVssBackupComponents::AddNewTarget),
             PlaceOf(&IVssBackupComponents::SetRangesFilePath),
             PlaceOf(&IVssBackupComponents::PreRestore),
             PlaceOf(&IVssBackupComponents::PostRestore),
             PlaceOf(&IVssBackupComponents::SetContext),
             PlaceOf(&IVssBackupComponents::StartSnapshotSet),
             PlaceOf(&IVssBackupComponents::AddToSnapshotSet),
             PlaceOf(&IVssBackupComponents::DoSnapshotSet),
             PlaceOf(&IVssBackupComponents::DeleteSnapshots),
             PlaceOf(&IVssBackupComponents::ImportSnapshots),
             PlaceOf(&IVssBackupComponents::BreakSnapshotSet),
             PlaceOf(&IVssBackupComponents::GetSnapshotProperties),
             PlaceOf(&IVssBackupComponents::Query),
             PlaceOf(&IVssBackupComponents::IsVolumeSupported),
             PlaceOf(&IVssBackupComponents::DisableWriterClasses),
             PlaceOf(&IVssBackupComponents::EnableWriterClasses),
             PlaceOf(&IVssBackupComponents::DisableWriterInstances),
             PlaceOf(&IVssBackupComponents::ExposeSnapshot),
             PlaceOf(&IVssBackupComponents::RevertToSnapshot),
             PlaceOf(&IVssBackupComponents::QueryRevertStatus),
         }) {
        EXPECT_EQ(actual, place) << "method " << place;
        place++;
    }
}

TEST(SdkLayout, MethodsOfAsyncStandInPublishedOrder) {
    EXPECT_EQ(PlaceOf(&IVssAsync::Cancel), 3u);
    EXPECT_EQ(PlaceOf(&IVssAsync::Wait), 4u);
    EXPECT_EQ(PlaceOf(&IVssAsync::QueryStatus), 5u);
}

TEST(SdkLayout, NullGuidIsAllZero) {
    const GUID zero{};
    EXPECT_EQ(memcmp(&GUID_NULL, &zero, sizeof zero), 0);
}

TEST(SdkLayout, InvalidHandleIsMinusOne) {
    EXPECT_EQ(reinterpret_cast<intptr_t>(INVALID_HANDLE_VALUE), -1);
}
