// The contract of disks on Linux, on loop devices of 512 and 4096-byte sectors: numbering, opening, direct transfers,
// the exclusive claim, device control, and the disk that the system runs from.
#include <gtest/gtest.h>

#include <windows.h>

#include <winioctl.h>

#include <malloc.h>

#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "linux/disk_users.h"
#include "linux/linux_disks.h"
#include "linux/open_objects.h"
#include "linux/work_account.h"
#include "linux_host_calls.h"
#include "linux_loop_disks.h"
#include "linux_made_up_host.h"
#include "temporary_folder.h"

namespace {

using vornix::platform::FindObject;
using vornix::platform::HostDisk;
using vornix::platform::HostDisks;
using vornix::platform::HostRoots;
using vornix::platform::OwnedDescriptor;
using vornix::platform::ReadFirstLine;
using vornix::platform::TheHostRoots;

struct FreeAligned {
    void operator()(char* block) const { _aligned_free(block); }
};

using AlignedBytes = std::unique_ptr<char[], FreeAligned>;

AlignedBytes MakeAligned(size_t size) {
    return AlignedBytes(static_cast<char*>(_aligned_malloc(size, 4096)));
}

void FillWithPattern(char* bytes, size_t size, uint32_t seed) {
    uint32_t state = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; i++) {
        state = state * 1664525u + 1013904223u;
        bytes[i] = static_cast<char>(state >> 24);
    }
}

class LinuxDisks : public testing::Test {
protected:
    void SetUp() override {
        if (!TheLoopDisks().WhyNone.empty()) {
            GTEST_SKIP() << TheLoopDisks().WhyNone;
        }
        ASSERT_GE(Small().Number, 0);
        ASSERT_GE(Large().Number, 0);
        ASSERT_GE(ReadOnly().Number, 0);
    }
    static const LoopDisk& Small() { return TheLoopDisks().Small; }
    static const LoopDisk& Large() { return TheLoopDisks().Large; }
    static const LoopDisk& ReadOnly() { return TheLoopDisks().ReadOnly; }
};

// Tests of which a part ends its process: this name has them run first, while there is no other thread.
using LinuxDisksDeathTest = LinuxDisks;

// ---------------------------------------------------------------------------------------------------------------
// Numbering

TEST(LinuxDiskNumbers, HardwareComesFirstAndEachKindInTheKernelsOrder) {
    int number = 0;
    bool isPastHardware = false;
    dev_t last = 0;
    for (const HostDisk& disk : HostDisks()) {
        const std::string path = "/sys/block/" + disk.Name;
        const bool isHardware = access((path + "/device").c_str(), F_OK) == 0;
        if (!isHardware && !isPastHardware) {
            isPastHardware = true;
            last = 0;
        }
        EXPECT_EQ(disk.Number, number++) << disk.Name;
        EXPECT_NE(isHardware, isPastHardware) << disk.Name << " is hardware behind other devices";
        EXPECT_GT(disk.Device, last) << disk.Name;
        last = disk.Device;
        for (const char* prefix : {"ram", "zram", "dm-", "md", "sr", "fd"}) {
            EXPECT_FALSE(disk.Name.starts_with(prefix)) << disk.Name;
        }
    }
}

TEST_F(LinuxDisks, NumberIsSpeltAsWindowsSpellsIt) {
    const std::wstring number = std::to_wstring(Small().Number);
    const auto opens = [](const std::wstring& path) {
        const ScopedHandle handle(
            CreateFileW(path.c_str(), GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
        return handle.IsOpen();
    };
    EXPECT_TRUE(opens(L"\\\\.\\PhysicalDrive" + number));
    EXPECT_TRUE(opens(L"\\\\.\\PHYSICALDRIVE" + number));
    for (const std::wstring& path : std::vector<std::wstring>{
             L"\\\\.\\PhysicalDrive0" + number, L"\\\\.\\PhysicalDrive", L"\\\\.\\PhysicalDrive-1",
             L"\\\\.\\PhysicalDrive" + number + L"x", L"\\\\.\\PhysicalDrive99999999999999999999"}) {
        EXPECT_EQ(ErrorOf(opens(path)), ERROR_FILE_NOT_FOUND);
    }
}

TEST_F(LinuxDisks, NumbersOfAllLengthsAreNumbers) {
    auto& disks = const_cast<std::vector<HostDisk>&>(HostDisks());
    const auto small =
        std::find_if(disks.begin(), disks.end(), [](const HostDisk& disk) { return disk.Name == Small().Name; });
    const int before = small->Number;
    for (const int number : {0, 10, 1023}) {
        const auto other =
            std::find_if(disks.begin(), disks.end(), [&](const HostDisk& disk) { return disk.Number == number; });
        if (other != disks.end()) {
            other->Number = before;
        }
        small->Number = number;
        EXPECT_TRUE(ScopedHandle(OpenNumber(number, GENERIC_READ, shareAll)).IsOpen()) << number;
        if (other != disks.end()) {
            other->Number = number;
        }
        small->Number = before;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Device control

TEST_F(LinuxDisks, LengthAndSectorSizeAreTheDevices) {
    for (const LoopDisk* disk : {&Small(), &Large(), &ReadOnly()}) {
        const ScopedHandle handle(OpenNumber(disk->Number, GENERIC_READ, shareAll, 0));
        ASSERT_TRUE(handle.IsOpen()) << GetLastError();
        GET_LENGTH_INFORMATION length{};
        DWORD returned = 0;
        EXPECT_TRUE(DeviceIoControl(handle.Get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof length,
                                    &returned, nullptr));
        EXPECT_EQ(returned, 8u);
        EXPECT_EQ(length.Length.QuadPart, static_cast<LONGLONG>(disk->Length));
        DISK_GEOMETRY_EX geometry{};
        EXPECT_TRUE(DeviceIoControl(handle.Get(), IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry,
                                    sizeof geometry, &returned, nullptr));
        EXPECT_EQ(returned, 40u);
        EXPECT_EQ(geometry.Geometry.BytesPerSector, disk->SectorSize);
        EXPECT_EQ(geometry.Geometry.MediaType, FixedMedia);
        EXPECT_EQ(geometry.Geometry.TracksPerCylinder, 255u);
        EXPECT_EQ(geometry.Geometry.SectorsPerTrack, 63u);
        EXPECT_EQ(geometry.Geometry.Cylinders.QuadPart,
                  static_cast<LONGLONG>(disk->Length / disk->SectorSize / (255 * 63)));

        EXPECT_EQ(ErrorOf(DeviceIoControl(handle.Get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, 7, &returned,
                                          nullptr)),
                  ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(ErrorOf(DeviceIoControl(handle.Get(), IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, 39,
                                          &returned, nullptr)),
                  ERROR_INSUFFICIENT_BUFFER);
        unsigned char extents[224];
        EXPECT_EQ(ErrorOf(DeviceIoControl(handle.Get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, extents,
                                          sizeof extents, &returned, nullptr)),
                  ERROR_INVALID_FUNCTION);
        LARGE_INTEGER size;
        EXPECT_EQ(ErrorOf(GetFileSizeEx(handle.Get(), &size)), ERROR_INVALID_FUNCTION);
    }
}

TEST_F(LinuxDisks, NodeIsOpenedForWhatIsAskedAndLockedWhereItIsExclusive) {
    const struct {
        DWORD Access;
        DWORD Share;
        int Mode;
    } cases[] = {{GENERIC_READ, shareAll, O_RDONLY}, {readWrite, 0, O_RDWR}, {GENERIC_WRITE, 0, O_WRONLY}};
    for (const auto& oneCase : cases) {
        const ScopedHandle handle(OpenNumber(Small().Number, oneCase.Access, oneCase.Share));
        ASSERT_TRUE(handle.IsOpen()) << GetLastError();
        EXPECT_EQ(fcntl(FindObject(handle.Get())->Descriptor, F_GETFL) & O_ACCMODE, oneCase.Mode);
        const OwnedDescriptor other(open(("/dev/" + Small().Name).c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(flock(other.Get(), LOCK_SH | LOCK_NB) == 0, oneCase.Share != 0) << "who names devices is kept away";
        GET_LENGTH_INFORMATION length{};
        DWORD returned = 0;
        EXPECT_EQ(DeviceIoControl(handle.Get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof length,
                                  &returned, nullptr),
                  oneCase.Access != GENERIC_WRITE);
    }
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

#ifdef STATX_DIOALIGN
TEST_F(LinuxDisks, MemoryIsAlignedAsTheKernelSaysAndByWholeSectorsWhereItIsSilent) {
    const ScopedHostCalls scope;
    for (const bool tells : {true, false}) {
        for (const uint32_t alignment : {64u, 0u}) {
            TheHostCalls().ChangeStatx = [&](struct statx& status) {
                status.stx_mask = tells ? STATX_DIOALIGN : 0;
                status.stx_dio_mem_align = alignment;
            };
            const ScopedHandle handle(OpenNumber(Large().Number, GENERIC_READ, shareAll));
            ASSERT_TRUE(handle.IsOpen()) << GetLastError();
            EXPECT_EQ(FindObject(handle.Get())->MemoryAlignment, tells && alignment != 0 ? alignment : 4096);
        }
    }
}
#endif

// ---------------------------------------------------------------------------------------------------------------
// Transfers

TEST_F(LinuxDisks, WrittenBytesAreOnTheDeviceAndReadBack) {
    constexpr DWORD block = 4 << 20;
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        AlignedBytes written = MakeAligned(block);
        AlignedBytes read = MakeAligned(block);
        const ScopedHandle handle(OpenNumber(disk->Number, readWrite, 0));
        ASSERT_TRUE(handle.IsOpen()) << GetLastError();
        DWORD count = 0;
        for (uint64_t offset = 0; offset < disk->Length; offset += block) {
            const DWORD length = static_cast<DWORD>(std::min<uint64_t>(block, disk->Length - offset));
            FillWithPattern(written.get(), length, static_cast<uint32_t>(offset + disk->SectorSize));
            ASSERT_TRUE(Seek(handle.Get(), offset));
            ASSERT_TRUE(WriteFile(handle.Get(), written.get(), length, &count, nullptr)) << GetLastError();
            ASSERT_EQ(count, length);
            ASSERT_TRUE(Seek(handle.Get(), offset));
            ASSERT_TRUE(ReadFile(handle.Get(), read.get(), length, &count, nullptr)) << GetLastError();
            ASSERT_EQ(count, length);
            ASSERT_EQ(std::memcmp(read.get(), written.get(), length), 0);

            std::ifstream file(disk->File, std::ios::binary);
            file.seekg(static_cast<std::streamoff>(offset));
            file.read(read.get(), length);
            ASSERT_EQ(std::memcmp(read.get(), written.get(), length), 0) << "not in the file behind the device";
        }
    }
}

TEST_F(LinuxDisks, MemoryOfAnyAlignmentServes) {
    // The plain bytes of a sealed chunk lie in an ordinary array, and its length is more than one bounce.
    constexpr DWORD length = (3 << 20) + 8192;
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        std::vector<char> memory(length + 16);
        std::vector<char> back(length + 16, '?');
        for (const size_t shift : {size_t{1}, size_t{8}, size_t{16}}) {
            FillWithPattern(memory.data(), memory.size(), static_cast<uint32_t>(shift));
            const ScopedHandle handle(OpenNumber(disk->Number, readWrite, 0));
            ASSERT_TRUE(handle.IsOpen()) << GetLastError();
            DWORD count = 0;
            ASSERT_TRUE(Seek(handle.Get(), 4096));
            ASSERT_TRUE(WriteFile(handle.Get(), memory.data() + shift, length, &count, nullptr)) << GetLastError();
            ASSERT_EQ(count, length);
            ASSERT_TRUE(Seek(handle.Get(), 4096));
            ASSERT_TRUE(ReadFile(handle.Get(), back.data() + 16 - shift, length, &count, nullptr)) << GetLastError();
            ASSERT_EQ(count, length);
            ASSERT_EQ(std::memcmp(memory.data() + shift, back.data() + 16 - shift, length), 0);
        }
    }
}

TEST_F(LinuxDisks, TransfersAreWholeSectors) {
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        for (const DWORD flags : {DWORD{0}, static_cast<DWORD>(FILE_FLAG_NO_BUFFERING)}) {
            const ScopedHandle handle(OpenNumber(disk->Number, readWrite, 0, flags));
            ASSERT_TRUE(handle.IsOpen()) << GetLastError();
            AlignedBytes buffer = MakeAligned(8192);
            FillWithPattern(buffer.get(), 8192, 1);
            DWORD count = 99;
            EXPECT_EQ(ErrorOf(ReadFile(handle.Get(), buffer.get(), disk->SectorSize - 1, &count, nullptr)),
                      ERROR_INVALID_PARAMETER);
            EXPECT_EQ(count, 0u);
            EXPECT_EQ(ErrorOf(WriteFile(handle.Get(), buffer.get(), disk->SectorSize + 1, &count, nullptr)),
                      ERROR_INVALID_PARAMETER);
            ASSERT_TRUE(Seek(handle.Get(), disk->SectorSize / 2));
            EXPECT_EQ(ErrorOf(ReadFile(handle.Get(), buffer.get(), disk->SectorSize, &count, nullptr)),
                      ERROR_INVALID_PARAMETER);
        }
    }
}

TEST_F(LinuxDisks, BufferedTransferThatTheHostCutsWithinASectorGoesOn) {
    const ScopedHandle handle(OpenNumber(Small().Number, readWrite, 0, 0));
    ASSERT_TRUE(handle.IsOpen()) << GetLastError();
    AlignedBytes buffer = MakeAligned(8192);
    FillWithPattern(buffer.get(), 8192, 3);
    const ScopedHostCalls scope;
    TheHostCalls().LongestTransfer = 1000;
    DWORD count = 0;
    ASSERT_TRUE(WriteFile(handle.Get(), buffer.get(), 8192, &count, nullptr)) << GetLastError();
    EXPECT_EQ(count, 8192u);
    AlignedBytes back = MakeAligned(8192);
    ASSERT_TRUE(Seek(handle.Get(), 0));
    ASSERT_TRUE(ReadFile(handle.Get(), back.get(), 8192, &count, nullptr)) << GetLastError();
    EXPECT_EQ(count, 8192u);
    EXPECT_EQ(std::memcmp(buffer.get(), back.get(), 8192), 0);
}

TEST_F(LinuxDisks, TransferAtTheEndIsRefusedAndAcrossItIsCut) {
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        const ScopedHandle handle(OpenNumber(disk->Number, readWrite, 0));
        AlignedBytes buffer = MakeAligned(16 * 4096);
        FillWithPattern(buffer.get(), 16 * 4096, 5);
        DWORD count = 99;
        ASSERT_TRUE(Seek(handle.Get(), disk->Length));
        EXPECT_EQ(ErrorOf(ReadFile(handle.Get(), buffer.get(), disk->SectorSize, &count, nullptr)),
                  ERROR_SECTOR_NOT_FOUND);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(ErrorOf(WriteFile(handle.Get(), buffer.get(), disk->SectorSize, &count, nullptr)),
                  ERROR_SECTOR_NOT_FOUND);
        ASSERT_TRUE(Seek(handle.Get(), disk->Length + 4096));
        EXPECT_EQ(ErrorOf(ReadFile(handle.Get(), buffer.get(), disk->SectorSize, &count, nullptr)),
                  ERROR_SECTOR_NOT_FOUND);
        ASSERT_TRUE(Seek(handle.Get(), disk->Length - 2 * disk->SectorSize));
        EXPECT_TRUE(WriteFile(handle.Get(), buffer.get(), 8 * disk->SectorSize, &count, nullptr));
        EXPECT_EQ(count, 2 * disk->SectorSize);
        ASSERT_TRUE(Seek(handle.Get(), disk->Length - 2 * disk->SectorSize));
        EXPECT_TRUE(ReadFile(handle.Get(), buffer.get(), 8 * disk->SectorSize, &count, nullptr));
        EXPECT_EQ(count, 2 * disk->SectorSize);
    }
}

TEST_F(LinuxDisksDeathTest, FailedTransferTellsItsErrorAndHowFarItCame) {
    const struct {
        int HostError;
        DWORD Error;
    } cases[] = {{EIO, ERROR_IO_DEVICE},
                 {ENODATA, ERROR_CRC},
                 {ENOMEDIUM, ERROR_NOT_READY},
                 {ENODEV, ERROR_DEVICE_NOT_CONNECTED}};
    for (const auto& oneCase : cases) {
        // A process of its own: the close of a disk that a write failed on ends it.
        const auto run = [&] {
            const HANDLE handle = OpenNumber(Small().Number, readWrite, 0);
            const AlignedBytes buffer = MakeAligned(8192);
            std::memset(buffer.get(), 0, 8192);
            TheHostCalls().TransferError = oneCase.HostError;
            TheHostCalls().LongestTransfer = 2048;
            TheHostCalls().FailTransferAfter = 3;
            DWORD count = 99;
            if (ReadFile(handle, buffer.get(), 8192, &count, nullptr) || GetLastError() != oneCase.Error ||
                count != 3 * 2048) {
                _exit(2);
            }
            TheHostCalls().FailTransferAfter = 1;
            const BOOL written = WriteFile(handle, buffer.get(), 8192, &count, nullptr);
            _exit(!written && GetLastError() == oneCase.Error && count == 2048 ? 0 : 3);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << oneCase.HostError;
    }
}

// Gives the file behind a loop device another size, which the device then has too.
void Resize(const LoopDisk& loop, uint64_t length) {
    std::filesystem::resize_file(loop.File, length);
    const int device = open(("/dev/" + loop.Name).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(ioctl(device, LOOP_SET_CAPACITY, 0), 0) << std::strerror(errno);
    (void)close(device);
}

TEST_F(LinuxDisks, DiskWithoutAMediumIsNotReady) {
    Resize(Small(), 0);
    EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, GENERIC_READ, shareAll)), ERROR_NOT_READY);
    Resize(Small(), Small().Length);
}

TEST_F(LinuxDisksDeathTest, TransferBehindTheEndThatADiskHasByNowSaysWhatIsWrong) {
    const struct {
        uint64_t Length;
        DWORD Error;
    } cases[] = {{1 << 20, ERROR_SECTOR_NOT_FOUND}, {0, ERROR_DEVICE_NOT_CONNECTED}};
    for (const auto& oneCase : cases) {
        const auto run = [&] {
            const HANDLE handle = OpenNumber(Small().Number, readWrite, 0);
            const AlignedBytes buffer = MakeAligned(8192);
            Resize(Small(), oneCase.Length);
            DWORD count = 99;
            if (!Seek(handle, (1 << 20) - 4096) || ReadFile(handle, buffer.get(), 8192, &count, nullptr) ||
                GetLastError() != oneCase.Error || count != (oneCase.Length != 0 ? 4096u : 0u)) {
                _exit(2);
            }
            if (!Seek(handle, 1 << 20) || WriteFile(handle, buffer.get(), 8192, &count, nullptr) ||
                GetLastError() != oneCase.Error || count != 0) {
                _exit(3);
            }
            _exit(0);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << oneCase.Length;
        Resize(Small(), Small().Length);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// The way to the medium

BOOL WriteSector(HANDLE handle, const LoopDisk& disk) {
    const AlignedBytes buffer = MakeAligned(disk.SectorSize);
    FillWithPattern(buffer.get(), disk.SectorSize, 7);
    DWORD count = 0;
    return Seek(handle, 0) && WriteFile(handle, buffer.get(), disk.SectorSize, &count, nullptr);
}

BOOL ReadSector(HANDLE handle, const LoopDisk& disk) {
    const AlignedBytes buffer = MakeAligned(disk.SectorSize);
    DWORD count = 0;
    return Seek(handle, 0) && ReadFile(handle, buffer.get(), disk.SectorSize, &count, nullptr);
}

TEST_F(LinuxDisks, DiskThatIsOpenToBeWrittenIsInTheAccountOfTheRun) {
    vornix::platform::WorkAccount& account = vornix::platform::AccountOfRun();
    account.HasOtherWork = false;
    {
        SetLastError(ERROR_GEN_FAILURE);
        const ScopedHandle reader(OpenNumber(Small().Number, GENERIC_READ, shareAll));
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        EXPECT_FALSE(account.HasOtherWork);
        EXPECT_EQ(account.Disk, "");
    }
    ScopedHandle target(OpenNumber(Small().Number, readWrite, 0));
    EXPECT_TRUE(account.HasOtherWork);
    EXPECT_EQ(account.Disk, "PhysicalDrive" + std::to_string(Small().Number) + " (/dev/" + Small().Name + ")");
    EXPECT_FALSE(account.IsDiskWritten);
    EXPECT_TRUE(WriteSector(target.Get(), Small()));
    EXPECT_TRUE(account.IsDiskWritten);
    target.Close();
    EXPECT_EQ(account.Disk, "");
    EXPECT_FALSE(account.IsDiskWritten);
}

TEST_F(LinuxDisks, WrittenDiskIsFlushedBeforeItIsReadAtItsPropertiesAndAtItsClose) {
    using Names = std::vector<std::string>;
    const ScopedHostCalls scope;
    const Names& order = TheHostCalls().Order;
    {
        const ScopedHandle handle(OpenNumber(Small().Number, readWrite, 0));
        ASSERT_TRUE(ReadSector(handle.Get(), Small()));
        ASSERT_TRUE(WriteSector(handle.Get(), Small()));
        ASSERT_TRUE(WriteSector(handle.Get(), Small()));
        EXPECT_EQ(order, Names{});
        ASSERT_TRUE(ReadSector(handle.Get(), Small()));
        ASSERT_TRUE(ReadSector(handle.Get(), Small()));
        EXPECT_EQ(order, Names{"sync disk"});
        ASSERT_TRUE(WriteSector(handle.Get(), Small()));
        (void)UpdateProperties(handle.Get());
        EXPECT_EQ(order, (Names{"sync disk", "sync disk"}));
        ASSERT_TRUE(WriteSector(handle.Get(), Small()));
    }
    EXPECT_EQ(order, (Names{"sync disk", "sync disk", "sync disk"}));
    TheHostCalls().Order.clear();
    {
        const ScopedHandle handle(OpenNumber(Small().Number, readWrite, 0));
        ASSERT_TRUE(ReadSector(handle.Get(), Small()));
        (void)UpdateProperties(handle.Get());
    }
    EXPECT_EQ(order, Names{});
}

TEST_F(LinuxDisksDeathTest, FlushThatFailedOnceIsToldByEachCallAndEndsTheProcessAtTheClose) {
    const auto run = [](bool reading, bool updating) {
        const HANDLE handle = OpenNumber(Small().Number, readWrite, 0);
        TheHostCalls().SyncError = EIO;
        if (!WriteSector(handle, Small())) {
            _exit(2);
        }
        // The second time the kernel itself would say that all is well.
        for (int time = 0; time < 2; time++) {
            if (reading && (ReadSector(handle, Small()) || GetLastError() != ERROR_IO_DEVICE)) {
                _exit(3);
            }
            if (updating && (UpdateProperties(handle) || GetLastError() != ERROR_IO_DEVICE)) {
                _exit(4);
            }
        }
        (void)CloseHandle(handle);
    };
    const std::string report = MediumReport(
        "PhysicalDrive" + std::to_string(Small().Number) + " \\(/dev/" + Small().Name + "\\)", ERROR_IO_DEVICE);
    EXPECT_EXIT(run(false, false), testing::ExitedWithCode(1), report);
    EXPECT_EXIT(run(true, false), testing::ExitedWithCode(1), report);
    EXPECT_EXIT(run(false, true), testing::ExitedWithCode(1), report);
}

// ---------------------------------------------------------------------------------------------------------------
// The exclusive claim

TEST_F(LinuxDisks, HandlesHonourEachOthersShareModes) {
    {
        const ScopedHandle reader(OpenNumber(Small().Number, GENERIC_READ, shareAll));
        ASSERT_TRUE(reader.IsOpen());
        const ScopedHandle second(OpenNumber(Small().Number, GENERIC_READ, shareAll));
        EXPECT_TRUE(second.IsOpen());
        EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, readWrite, 0)), ERROR_SHARING_VIOLATION);
    }
    const ScopedHandle target(OpenNumber(Small().Number, readWrite, 0));
    ASSERT_TRUE(target.IsOpen());
    EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, readWrite, 0)), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, GENERIC_READ, shareAll)), ERROR_SHARING_VIOLATION);
}

TEST_F(LinuxDisks, ClaimOfTheKernelKeepsADiskInUseFromBeingWritten) {
    // What mounting does with a whole disk.
    const int claim = open(("/dev/" + Small().Name).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    ASSERT_GE(claim, 0);
    EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, readWrite, 0)), ERROR_SHARING_VIOLATION);
    {
        const ScopedHandle reader(OpenNumber(Small().Number, GENERIC_READ, shareAll));
        EXPECT_TRUE(reader.IsOpen()) << "a disk in use can be read";
    }
    close(claim);
    const ScopedHandle target(OpenNumber(Small().Number, readWrite, 0));
    EXPECT_TRUE(target.IsOpen());
}

TEST_F(LinuxDisks, WriteProtectedDiskIsReadAndNotOpenedForWriting) {
    const ScopedHandle reader(OpenNumber(ReadOnly().Number, GENERIC_READ, shareAll));
    EXPECT_TRUE(reader.IsOpen());
    EXPECT_EQ(ErrorOf(OpenNumber(ReadOnly().Number, readWrite, shareAll)), ERROR_WRITE_PROTECT);
}

constexpr uint64_t partitionStart = 8 << 20;

std::string PartitionOf(const LoopDisk& loop) {
    return loop.Name + "p1";
}

blkpg_partition MakePartition(int number, uint64_t start, uint64_t end) {
    blkpg_partition partition{};
    partition.pno = number;
    partition.start = static_cast<long long>(start);
    partition.length = static_cast<long long>(end - start);
    return partition;
}

bool ChangePartition(int device, int operation, blkpg_partition partition) {
    blkpg_ioctl_arg argument{operation, 0, sizeof partition, &partition};
    return ioctl(device, BLKPG, &argument) == 0;
}

// Forgets the partitions that AddPartition told of. One that is forgotten by nobody outlives a loop device without a
// partition table, and stands in the way of whoever attaches it next.
void RemovePartitions(int device) {
    for (const int number : {1, 2}) {
        (void)ChangePartition(device, BLKPG_DEL_PARTITION, MakePartition(number, 0, 0));
    }
}

// Tells the kernel of partition 1 behind partitionStart, or of partition 2 in front of it, without a partition table:
// not every kernel reads those.
bool AddPartition(int device, uint64_t length, int number = 1) {
    const auto partition =
        number == 1 ? MakePartition(1, partitionStart, length) : MakePartition(2, partitionStart / 2, partitionStart);
    (void)ChangePartition(device, BLKPG_DEL_PARTITION, partition);
    return ChangePartition(device, BLKPG_ADD_PARTITION, partition);
}

bool AddPartition(const LoopDisk& loop, int number = 1) {
    const int device = open(("/dev/" + loop.Name).c_str(), O_RDONLY | O_CLOEXEC);
    const bool isAdded = AddPartition(device, loop.Length, number);
    close(device);
    return isAdded;
}

// Makes the system look at the partition table of a disk, which is what a command does after it wrote one, so that it
// forgets what AddPartition told.
void ForgetPartition(const LoopDisk& loop) {
    const ScopedHandle target(OpenNumber(loop.Number, readWrite, 0));
    AlignedBytes sector = MakeAligned(loop.SectorSize);
    std::memset(sector.get(), 0, loop.SectorSize);
    DWORD count = 0;
    EXPECT_TRUE(Seek(target.Get(), 0));
    EXPECT_TRUE(WriteFile(target.Get(), sector.get(), loop.SectorSize, &count, nullptr)) << GetLastError();
    EXPECT_TRUE(UpdateProperties(target.Get(), &count)) << GetLastError();
    EXPECT_EQ(count, 0u);
}

// Opens a partition of a disk, once the system has made its node: as any program may, or exclusively.
int OpenPartition(const std::string& disk, int number = 1, int flags = O_RDWR) {
    for (int attempt = 0; attempt < 200; attempt++) {
        const int descriptor = open(("/dev/" + disk + "p" + std::to_string(number)).c_str(), flags | O_CLOEXEC);
        if (descriptor >= 0) {
            return descriptor;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

int ClaimPartition(const LoopDisk& loop) {
    return OpenPartition(loop.Name, 1, O_RDONLY | O_EXCL);
}

// A loop device over an open file or device, for as long as this lives.
class ScopedLoop {
public:
    explicit ScopedLoop(int backing) {
        const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        // Another process may take the free device between the two steps.
        for (int attempt = 0; attempt < 1000 && device_ < 0; attempt++) {
            const int number = ioctl(control, LOOP_CTL_GET_FREE);
            device_ = open(("/dev/loop" + std::to_string(number)).c_str(), O_RDWR | O_CLOEXEC);
            loop_config config{};
            config.fd = static_cast<uint32_t>(backing);
            config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
            if (device_ >= 0 && ioctl(device_, LOOP_CONFIGURE, &config) != 0) {
                close(device_);
                device_ = -1;
            }
        }
        close(control);
    }
    ~ScopedLoop() {
        if (device_ >= 0) {
            RemovePartitions(device_);
            // Now, and not when another process that looked at it lets it go.
            (void)ioctl(device_, LOOP_CLR_FD, 0);
            close(device_);
        }
    }
    ScopedLoop(const ScopedLoop&) = delete;
    ScopedLoop& operator=(const ScopedLoop&) = delete;
    int Get() const { return device_; }
    std::string Name() const {
        return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(device_)).filename().string();
    }
    // Whether anything but the exclusive open of the asking itself uses it.
    bool IsInUse(std::vector<OwnedDescriptor>& claims) const {
        const OwnedDescriptor target(open(("/dev/" + Name()).c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
        struct stat status {};
        EXPECT_TRUE(target.IsOpen()) << std::strerror(errno);
        EXPECT_EQ(fstat(target.Get(), &status), 0);
        return vornix::platform::IsDiskInUse(target.Get(), status.st_rdev, claims);
    }

private:
    int device_ = -1;
};

TEST_F(LinuxDisks, ClaimedPartitionGuardsItsDisk) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    const int claim = ClaimPartition(Small());
    ASSERT_GE(claim, 0) << "no node for the partition";
    EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, readWrite, 0)), ERROR_SHARING_VIOLATION);
    {
        const ScopedHandle reader(OpenNumber(Small().Number, GENERIC_READ, shareAll));
        EXPECT_TRUE(reader.IsOpen());
    }
    close(claim);
    ForgetPartition(Small());
}

bool IsPartitionThere(const LoopDisk& loop) {
    return std::filesystem::exists("/sys/block/" + loop.Name + "/" + PartitionOf(loop));
}

TEST_F(LinuxDisks, OpenPartitionGuardsItsDiskAndStaysAPartition) {
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        ASSERT_TRUE(AddPartition(*disk)) << std::strerror(errno);
        const int user = OpenPartition(disk->Name);
        ASSERT_GE(user, 0) << "no node for the partition";
        EXPECT_EQ(ErrorOf(OpenNumber(disk->Number, readWrite, 0)), ERROR_SHARING_VIOLATION);
        EXPECT_TRUE(IsPartitionThere(*disk));
        close(user);
        {
            const ScopedHandle target(OpenNumber(disk->Number, readWrite, 0));
            EXPECT_TRUE(target.IsOpen()) << GetLastError();
        }
        // An open that writes nothing changes nothing, although the disk has no partition table.
        EXPECT_TRUE(IsPartitionThere(*disk));
        ForgetPartition(*disk);
    }
}

TEST_F(LinuxDisks, LoopDeviceGuardsTheDiskAndThePartitionThatItStandsFor) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    for (const std::string& name : {Small().Name, PartitionOf(Small())}) {
        const int backing =
            name == Small().Name ? open(("/dev/" + name).c_str(), O_RDWR | O_CLOEXEC) : OpenPartition(Small().Name);
        ASSERT_GE(backing, 0);
        {
            const ScopedLoop loop(backing);
            ASSERT_GE(loop.Get(), 0) << std::strerror(errno);
            close(backing);
            EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, readWrite, 0)), ERROR_SHARING_VIOLATION) << name;
            const ScopedHandle reader(OpenNumber(Small().Number, GENERIC_READ, shareAll));
            EXPECT_TRUE(reader.IsOpen()) << "a disk in use can be read";
        }
    }
    ForgetPartition(Small());
}

// Opens the disk in a process of its own, for which `mountRest` has mounted something. Gives the error, 0 for none.
int ErrorOfOpenWhere(const LoopDisk& disk, DWORD access, DWORD share, const std::function<bool()>& mountRest) {
    return InChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            !mountRest()) {
            return 255;
        }
        return OpenNumber(disk.Number, access, share) != INVALID_HANDLE_VALUE ? 0 : static_cast<int>(GetLastError());
    });
}

TEST_F(LinuxDisks, WhatLiesUponADiskOrItsPartitionGuardsIt) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    for (const std::string& name : {Small().Name, PartitionOf(Small())}) {
        const std::string holders = "/sys/class/block/" + name + "/holders";
        for (const bool isHeld : {false, true}) {
            const int error = ErrorOfOpenWhere(Small(), readWrite, 0, [&] {
                return mount("none", holders.c_str(), "tmpfs", 0, nullptr) == 0 &&
                       (!isHeld || mkdir((holders + "/dm-0").c_str(), 0755) == 0);
            });
            EXPECT_EQ(error, isHeld ? static_cast<int>(ERROR_SHARING_VIOLATION) : 0) << name;
        }
    }
    ForgetPartition(Small());
}

TEST_F(LinuxDisks, NodeOfAnotherDeviceIsNoDisk) {
    EXPECT_EQ(ErrorOfOpenWhere(Small(), GENERIC_READ, shareAll,
                               [&] {
                                   return mount(("/dev/" + Large().Name).c_str(), ("/dev/" + Small().Name).c_str(),
                                                nullptr, MS_BIND, nullptr) == 0;
                               }),
              static_cast<int>(ERROR_FILE_NOT_FOUND));
}

TEST_F(LinuxDisks, LoopDeviceIsNotAskedByTheNodeOfAnother) {
    const int backing = open(("/dev/" + Small().Name).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(backing, 0);
    const ScopedLoop loop(backing);
    close(backing);
    ASSERT_GE(loop.Get(), 0) << std::strerror(errno);
    const std::string other = "/dev/" + TheLoopDisks().ReadOnly.Name;
    EXPECT_EQ(ErrorOfOpenWhere(Small(), readWrite, 0,
                               [&] {
                                   return mount(other.c_str(), ("/dev/" + loop.Name()).c_str(), nullptr, MS_BIND,
                                                nullptr) == 0;
                               }),
              static_cast<int>(ERROR_SHARING_VIOLATION));
}

TEST_F(LinuxDisks, OpenPartitionOfADiskWhoseTableIsNotReadGuardsIt) {
    const int file = open(Small().File.c_str(), O_RDWR | O_CLOEXEC);
    const ScopedLoop loop(file);
    close(file);
    ASSERT_GE(loop.Get(), 0) << std::strerror(errno);
    EXPECT_NE(ioctl(loop.Get(), BLKRRPART), 0) << "the kernel reads its table after all";
    std::vector<OwnedDescriptor> claims;
    const auto areBothThere = [&loop] {
        const std::string partition = "/sys/class/block/" + loop.Name() + "p";
        return std::filesystem::exists(partition + "1") && std::filesystem::exists(partition + "2");
    };
    for (const int number : {1, 2}) {
        ASSERT_TRUE(AddPartition(loop.Get(), Small().Length, number)) << std::strerror(errno);
        const int user = OpenPartition(loop.Name(), number);
        ASSERT_GE(user, 0) << "no node for the partition";
        EXPECT_TRUE(loop.IsInUse(claims));
        EXPECT_EQ(areBothThere(), number == 2) << "the other one was forgotten";
        close(user);
    }
    EXPECT_FALSE(loop.IsInUse(claims));
    EXPECT_TRUE(areBothThere());
}

TEST_F(LinuxDisks, WhatALoopDeviceStandsForGuardsIt) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    const int backing = OpenPartition(Small().Name);
    ASSERT_GE(backing, 0);
    {
        const ScopedLoop loop(backing);
        ASSERT_GE(loop.Get(), 0) << std::strerror(errno);
        std::vector<OwnedDescriptor> claims;
        const int claim = ClaimPartition(Small());
        ASSERT_GE(claim, 0);
        EXPECT_TRUE(loop.IsInUse(claims));
        EXPECT_TRUE(claims.empty());
        close(claim);
        {
            const ScopedLoop other(backing);
            ASSERT_GE(other.Get(), 0) << std::strerror(errno);
            EXPECT_TRUE(loop.IsInUse(claims));
        }
        EXPECT_FALSE(loop.IsInUse(claims));
        ASSERT_EQ(claims.size(), 1u);
        EXPECT_LT(open(("/dev/" + PartitionOf(Small())).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC), 0)
            << "not claimed while the loop device is the target";
    }
    close(backing);
    ForgetPartition(Small());
}

TEST_F(LinuxDisks, WhatUsesTheRestOfItsDiskGuardsALoopDeviceUponAPartition) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    const int backing = OpenPartition(Small().Name);
    const int whole = open(("/dev/" + Small().Name).c_str(), O_RDWR | O_CLOEXEC);
    {
        const ScopedLoop loop(backing);
        const ScopedLoop other(whole);
        ASSERT_GE(loop.Get(), 0) << std::strerror(errno);
        ASSERT_GE(other.Get(), 0) << std::strerror(errno);
        std::vector<OwnedDescriptor> claims;
        EXPECT_TRUE(loop.IsInUse(claims));
    }
    close(whole);
    close(backing);
    ForgetPartition(Small());
}

TEST_F(LinuxDisks, SixteenLoopDevicesUponEachOtherAreLookedThrough) {
    std::vector<std::unique_ptr<ScopedLoop>> layers;
    std::vector<OwnedDescriptor> claims;
    OwnedDescriptor below(open(Small().File.c_str(), O_RDWR | O_CLOEXEC));
    for (int layer = 0; layer < 17; layer++) {
        layers.push_back(std::make_unique<ScopedLoop>(below.Get()));
        ASSERT_GE(layers.back()->Get(), 0) << std::strerror(errno);
        below = OwnedDescriptor(open(("/dev/" + layers.back()->Name()).c_str(), O_RDWR | O_CLOEXEC));
        if (layer >= 15) {
            EXPECT_EQ(layers.back()->IsInUse(claims), layer == 16) << layer;
            claims.clear();
        }
    }
    below = OwnedDescriptor(-1);
    std::for_each(layers.rbegin(), layers.rend(), [](auto& layer) { layer.reset(); });
}

TEST_F(LinuxDisks, PartitionThatSomebodyLooksIntoForAMomentIsWaitedFor) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    const int user = OpenPartition(Small().Name);
    ASSERT_GE(user, 0) << "no node for the partition";
    std::thread looker([user] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        close(user);
    });
    {
        const ScopedHandle target(OpenNumber(Small().Number, readWrite, 0));
        EXPECT_TRUE(target.IsOpen()) << GetLastError();
    }
    looker.join();
    ForgetPartition(Small());
}

TEST_F(LinuxDisks, LoopDeviceWhosePathIsGoneGuardsItsDisk) {
    const std::string path = (std::filesystem::temp_directory_path() / ("vornix-node-" + Small().Name)).string();
    struct stat status {};
    ASSERT_EQ(stat(("/dev/" + Small().Name).c_str(), &status), 0);
    ASSERT_EQ(mknod(path.c_str(), S_IFBLK | 0600, status.st_rdev), 0) << std::strerror(errno);
    const int backing = open(path.c_str(), O_RDWR | O_CLOEXEC);
    (void)unlink(path.c_str());
    if (backing < 0) {
        GTEST_SKIP() << "no devices in the temporary folder";
    }
    const ScopedLoop loop(backing);
    close(backing);
    ASSERT_GE(loop.Get(), 0) << std::strerror(errno);
    EXPECT_EQ(ErrorOf(OpenNumber(Small().Number, readWrite, 0)), ERROR_SHARING_VIOLATION);
}

TEST_F(LinuxDisks, NobodyReadsOldBytesOfAPartitionBehindTheClose) {
    constexpr size_t length = 65536;
    std::vector<char> seen(length);
    const AlignedBytes bytes = MakeAligned(length);
    int partition = -1;
    {
        const ScopedHandle target(OpenNumber(Small().Number, readWrite, 0));
        ASSERT_TRUE(target.IsOpen()) << GetLastError();
        for (const char byte : {'o', 'n'}) {
            std::memset(bytes.get(), byte, length);
            DWORD count = 0;
            ASSERT_TRUE(Seek(target.Get(), partitionStart));
            ASSERT_TRUE(WriteFile(target.Get(), bytes.get(), length, &count, nullptr)) << GetLastError();
            if (partition < 0) {
                ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
                partition = OpenPartition(Small().Name);
                ASSERT_GE(partition, 0) << "no node for the partition";
                ASSERT_EQ(pread(partition, seen.data(), length, 0), static_cast<ssize_t>(length));
                EXPECT_EQ(seen[0], 'o');
            }
        }
        ASSERT_EQ(pread(partition, seen.data(), length, 0), static_cast<ssize_t>(length));
        EXPECT_EQ(seen[0], 'o') << "not remembered here, which leaves nothing to test";
    }
    ASSERT_EQ(pread(partition, seen.data(), length, 0), static_cast<ssize_t>(length));
    EXPECT_EQ(std::memcmp(seen.data(), bytes.get(), length), 0);
    close(partition);
    ForgetPartition(Small());
}

TEST_F(LinuxDisks, UpdatedPropertiesForgetWhatIsNotInTheTable) {
    ASSERT_TRUE(AddPartition(Small())) << std::strerror(errno);
    ASSERT_TRUE(IsPartitionThere(Small()));
    ForgetPartition(Small());
    EXPECT_FALSE(IsPartitionThere(Small()));
}

// ---------------------------------------------------------------------------------------------------------------
// The disk that the system runs from

struct RootAnswer {
    DWORD Count;
    DWORD Disk;
    LONGLONG Start;
    LONGLONG Length;
};

bool AskForRoot(RootAnswer& answer) {
    const ScopedHandle volume(CreateFileW(L"\\\\.\\C:", GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    unsigned char buffer[224] = {};
    DWORD returned = 0;
    if (!volume.IsOpen() || !DeviceIoControl(volume.Get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer,
                                             sizeof buffer, &returned, nullptr)) {
        return false;
    }
    VOLUME_DISK_EXTENTS extents;
    std::memcpy(&extents, buffer, sizeof extents);
    answer = {extents.NumberOfDiskExtents, extents.Extents[0].DiskNumber, extents.Extents[0].StartingOffset.QuadPart,
              extents.Extents[0].ExtentLength.QuadPart};
    return returned == offsetof(VOLUME_DISK_EXTENTS, Extents) + extents.NumberOfDiskExtents * sizeof(DISK_EXTENT);
}

constexpr DWORD numberOfNoDisk = 0xFFFFFFFF;

TEST(LinuxSystemVolume, LiesOnTheDiskOfTheRootFolder) {
    RootAnswer answer{};
    ASSERT_TRUE(AskForRoot(answer));
    EXPECT_GE(answer.Count, 1u);
    struct stat root {};
    ASSERT_EQ(stat("/", &root), 0);
    const std::string device =
        "/sys/dev/block/" + std::to_string(major(root.st_dev)) + ":" + std::to_string(minor(root.st_dev));
    std::error_code code;
    std::filesystem::path whole = std::filesystem::canonical(device, code);
    if (code) {
        GTEST_SKIP() << "the root folder lies on no block device of its own";
    }
    if (std::filesystem::exists(whole / "partition")) {
        whole = whole.parent_path();
    }
    if (std::filesystem::exists(whole / "slaves") && !std::filesystem::is_empty(whole / "slaves")) {
        GTEST_SKIP() << "the root folder lies on a composed device";
    }
    const auto disk = std::find_if(HostDisks().begin(), HostDisks().end(), [&answer](const HostDisk& candidate) {
        return candidate.Number == static_cast<int>(answer.Disk);
    });
    ASSERT_NE(disk, HostDisks().end());
    EXPECT_EQ(disk->Name, whole.filename().string());
}

TEST(LinuxSystemVolume, NeedsRoomForAnExtent) {
    const ScopedHandle volume(CreateFileW(L"\\\\.\\C:", GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    unsigned char buffer[32] = {};
    DWORD returned = 99;
    EXPECT_EQ(ErrorOf(DeviceIoControl(volume.Get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer, 31,
                                      &returned, nullptr)),
              ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(
        ErrorOf(DeviceIoControl(volume.Get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, buffer, 32, &returned, nullptr)),
        ERROR_INVALID_FUNCTION);
}

class LinuxSystemVolumeOfSeveralDisks : public MadeUpHostTest {};

TEST_F(LinuxSystemVolumeOfSeveralDisks, IsToldAsFarAsThereIsRoom) {
    const LoopDisks& loops = TheLoopDisks();
    if (!loops.WhyNone.empty()) {
        GTEST_SKIP() << loops.WhyNone;
    }
    const auto numberOf = [](const LoopDisk& loop) { return ReadFirstLine("/sys/block/" + loop.Name + "/dev"); };
    for (const LoopDisk* loop : {&loops.Small, &loops.Large}) {
        Add({loop->Name, numberOf(*loop), false, "", "100"});
        Write("sys/class/block/" + loop->Name + "/dev", numberOf(*loop));
    }
    Write("proc/self/mountinfo",
          "20 1 0:30 / / rw - bcachefs /dev/" + loops.Small.Name + ":/dev/" + loops.Large.Name + " rw");
    HostRoots& roots = TheHostRoots();
    const HostRoots before = roots;
    roots_.Run = before.Run;
    const ScopedHandle volume(CreateFileW(L"\\\\.\\C:", GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    for (DWORD room = 32; room <= 56; room += 12) {
        std::vector<unsigned char> buffer(room + 24, 0xEE);
        DWORD returned = 99;
        roots = roots_;
        const BOOL isTold = DeviceIoControl(volume.Get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0,
                                            buffer.data(), room, &returned, nullptr);
        roots = before;
        EXPECT_EQ(isTold, room == 56);
        EXPECT_EQ(returned, room == 56 ? 56u : 32u);
        EXPECT_EQ(isTold ? ERROR_MORE_DATA : GetLastError(), ERROR_MORE_DATA);
        EXPECT_TRUE(std::all_of(buffer.begin() + returned, buffer.end(), [](unsigned char c) { return c == 0xEE; }));
        DWORD count = 0;
        std::memcpy(&count, buffer.data(), sizeof count);
        EXPECT_EQ(count, 2u);
        for (DWORD i = 0; i < (returned - 8) / 24; i++) {
            DISK_EXTENT extent;
            std::memcpy(&extent, buffer.data() + 8 + size_t{i} * 24, sizeof extent);
            EXPECT_EQ(extent.DiskNumber, static_cast<DWORD>((i == 0 ? loops.Small : loops.Large).Number));
            EXPECT_EQ(extent.StartingOffset.QuadPart, 0);
            EXPECT_EQ(extent.ExtentLength.QuadPart, 100 * 512);
        }
    }
}

// Runs with another root folder, as process 1 of namespaces of its own: `mountRoot` mounts it at the path given. 0 if
// the answer is the expected one; 77 where such a root cannot be made here.
template <typename MountRoot>
int AskUnderAnotherRoot(const std::string& point, MountRoot mountRoot, RootAnswer& answer) {
    int channel[2];
    if (pipe(channel) != 0) {
        return 77;
    }
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) {
            _exit(77);
        }
        if (const pid_t first = fork(); first != 0) {
            int status = 77 << 8;
            (void)waitpid(first, &status, 0);
            _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
        }
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || !mountRoot(point)) {
            _exit(77);
        }
        for (const char* name : {"proc", "sys", "dev"}) {
            const std::string target = point + "/" + name;
            (void)mkdir(target.c_str(), 0755);
            const bool isProc = std::string(name) == "proc";
            if (mount(isProc ? "proc" : (std::string("/") + name).c_str(), target.c_str(), isProc ? "proc" : nullptr,
                      isProc ? 0ul : MS_BIND | MS_REC, nullptr) != 0) {
                _exit(77);
            }
        }
        RootAnswer asked{};
        if (chroot(point.c_str()) != 0 || chdir("/") != 0) {
            _exit(77);
        }
        if (!AskForRoot(asked) || write(channel[1], &asked, sizeof asked) != sizeof asked) {
            _exit(1);
        }
        _exit(0);
    }
    close(channel[1]);
    const bool isAnswered = read(channel[0], &answer, sizeof answer) == sizeof answer;
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return isAnswered ? 0 : WEXITSTATUS(status);
}

class LinuxOtherRoots : public TemporaryFolderTest {};

TEST_F(LinuxOtherRoots, RootInMemoryLiesOnNoDisk) {
    RootAnswer answer{};
    const int status = AskUnderAnotherRoot(
        Folder().string(),
        [](const std::string& point) { return mount("none", point.c_str(), "tmpfs", 0, nullptr) == 0; }, answer);
    if (status == 77) {
        GTEST_SKIP() << "no mount namespaces here";
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(answer.Count, 1u);
    EXPECT_EQ(answer.Disk, numberOfNoDisk);
}

TEST_F(LinuxOtherRoots, OverlayInMemoryLiesOnNoDisk) {
    RootAnswer answer{};
    const int status = AskUnderAnotherRoot(
        Folder().string(),
        [](const std::string& point) {
            if (mount("none", point.c_str(), "tmpfs", 0, nullptr) != 0) {
                return false;
            }
            for (const char* name : {"/lower", "/upper", "/work", "/root"}) {
                if (mkdir((point + name).c_str(), 0755) != 0) {
                    return false;
                }
            }
            const std::string options =
                "lowerdir=" + point + "/lower,upperdir=" + point + "/upper,workdir=" + point + "/work";
            return mount("overlay", (point + "/root").c_str(), "overlay", 0, options.c_str()) == 0 &&
                   mount((point + "/root").c_str(), point.c_str(), nullptr, MS_MOVE, nullptr) == 0;
        },
        answer);
    if (status == 77) {
        GTEST_SKIP() << "no overlays in mount namespaces here";
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(answer.Disk, numberOfNoDisk);
}

TEST_F(LinuxOtherRoots, RootOnAPartitionLiesOnItsStretchOfTheDisk) {
    const LoopDisk& loop = TheLoopDisks().Large;
    if (!TheLoopDisks().WhyNone.empty()) {
        GTEST_SKIP() << TheLoopDisks().WhyNone;
    }
    ASSERT_TRUE(AddPartition(loop)) << std::strerror(errno);
    const int claim = ClaimPartition(loop);
    ASSERT_GE(claim, 0);
    close(claim);
    const std::string partition = "/dev/" + PartitionOf(loop);
    if (std::system(("mke2fs -q -F -t ext2 " + partition + " >/dev/null 2>&1").c_str()) != 0) {
        GTEST_SKIP() << "no mke2fs here";
    }
    RootAnswer answer{};
    const int status = AskUnderAnotherRoot(
        Folder().string(),
        [&partition](const std::string& point) {
            return mount(partition.c_str(), point.c_str(), "ext2", 0, nullptr) == 0;
        },
        answer);
    ForgetPartition(loop);
    if (status == 77) {
        GTEST_SKIP() << "no such file system in mount namespaces here";
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(answer.Count, 1u);
    // The file behind the loop device is out of sight from the new root, so the device itself is the disk.
    EXPECT_EQ(answer.Disk, static_cast<DWORD>(loop.Number));
    EXPECT_EQ(answer.Start, static_cast<LONGLONG>(partitionStart));
    EXPECT_EQ(answer.Length, static_cast<LONGLONG>(loop.Length - partitionStart));
}

} // namespace
