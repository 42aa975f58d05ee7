// The contract of what every machine has in common about disks and volumes: a disk that is not there, a device that
// is not there, the system volume and where it lies, and the enumeration of volumes.
#include "temporary_folder.h"

#include <winioctl.h>

#include <cstddef>
#include <cstring>

namespace {

HANDLE OpenDevice(LPCWSTR path) {
    return CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
}

TEST(DeviceContract, MissingDiskIsNotFound) {
    EXPECT_EQ(ErrorOf(OpenDevice(L"\\\\.\\PhysicalDrive987654")), ERROR_FILE_NOT_FOUND);
}

TEST(DeviceContract, MissingDeviceIsNotFound) {
    EXPECT_EQ(ErrorOf(CreateFileW(L"\\\\.\\NoSuchVornixDevice", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                  0, nullptr)),
              ERROR_FILE_NOT_FOUND);
}

TEST(DeviceContract, SystemVolumeTellsWhereItLies) {
    const ScopedHandle volume(OpenDevice(L"\\\\.\\C:"));
    if (!volume.IsOpen()) {
        GTEST_SKIP() << "no system volume that this user may open: error " << GetLastError();
    }
    unsigned char buffer[224] = {};
    DWORD returned = 0;
    if (!DeviceIoControl(volume.Get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer, sizeof buffer,
                         &returned, nullptr)) {
        GTEST_SKIP() << "no extents of the system volume here: error " << GetLastError();
    }
    VOLUME_DISK_EXTENTS extents;
    std::memcpy(&extents, buffer, sizeof extents);
    EXPECT_LE(extents.NumberOfDiskExtents, 9u) << "more than the buffer holds are a failure, not an answer";
    EXPECT_GE(returned, offsetof(VOLUME_DISK_EXTENTS, Extents));
}

class DeviceFileContract : public TemporaryFolderTest {};

TEST_F(DeviceFileContract, OrdinaryFileIsNoDisk) {
    MakeFile(L"file", "x");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    unsigned char buffer[64] = {};
    DWORD returned = 0;
    for (const DWORD code :
         {static_cast<DWORD>(IOCTL_DISK_GET_LENGTH_INFO), static_cast<DWORD>(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX)}) {
        SetLastError(0);
        EXPECT_FALSE(DeviceIoControl(file.Get(), code, nullptr, 0, buffer, sizeof buffer, &returned, nullptr));
        EXPECT_NE(GetLastError(), 0u);
    }
}

TEST_F(DeviceFileContract, ClosedHandleIsInvalid) {
    const HANDLE file = Open(L"file", GENERIC_WRITE, 0, CREATE_NEW);
    ASSERT_TRUE(CloseHandle(file));
    unsigned char buffer[8] = {};
    DWORD returned = 0;
    EXPECT_EQ(ErrorOf(DeviceIoControl(file, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, buffer, 8, &returned, nullptr)),
              ERROR_INVALID_HANDLE);
}

TEST(VolumeContract, EnumerationEndsWithNoMoreFiles) {
    WCHAR name[260] = {};
    const HANDLE search = FindFirstVolumeW(name, 260);
    if (search == INVALID_HANDLE_VALUE) {
        EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
        return;
    }
    int count = 1;
    while (FindNextVolumeW(search, name, 260)) {
        EXPECT_EQ(std::wstring(name).rfind(L"\\\\?\\Volume{", 0), 0u);
        ASSERT_LT(++count, 10'000);
    }
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    EXPECT_TRUE(FindVolumeClose(search));
}

} // namespace
