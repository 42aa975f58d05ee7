// What the file calls promise on Linux beyond their common contract: the errors of the host as those of Windows, share
// modes between processes, unbuffered transfers, and a rename that reaches the disk on any file system.
#include "temporary_folder.h"

#include <fcntl.h>
#include <malloc.h>
#include <stdio.h>

#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "linux/durable_writes.h"
#include "linux/host_paths.h"
#include "linux/open_objects.h"
#include "linux/share_modes.h"
#include "linux/work_account.h"
#include "linux_host_calls.h"

namespace {

using vornix::platform::FindObject;
using vornix::platform::OpenObject;
using vornix::platform::OwnedDescriptor;

using LinuxFiles = TemporaryFolderTest;

// ---------------------------------------------------------------------------------------------------------------
// Names

TEST_F(LinuxFiles, BackslashIsAnOrdinaryCharacter) {
    MakeFile(L"a\\b", "x");
    EXPECT_TRUE(std::filesystem::exists(Folder() / "a\\b"));
}

TEST_F(LinuxFiles, UnpairedSurrogateHasANameOfItsOwn) {
    MakeFile(std::wstring(1, static_cast<wchar_t>(0xD83D)), "x");
    EXPECT_TRUE(std::filesystem::exists(Folder() / "\xED\xA0\xBD"));
}

TEST_F(LinuxFiles, UnitIsSixteenBitsOfItsWideCharacter) {
    // What a byte widened by its sign leaves in the wider type of this platform.
    MakeFile(std::wstring(1, static_cast<wchar_t>(static_cast<signed char>(0xC3))), "x");
    EXPECT_TRUE(std::filesystem::exists(Folder() / "\xC3"));
}

TEST_F(LinuxFiles, WidenedByteIsThatByteAgain) {
    // Every byte that a name may hold and ASCII does not, none of them in the company that UTF-8 wants.
    for (unsigned byte = 0x80; byte <= 0xFF; byte++) {
        const std::string name = "n" + std::string(1, static_cast<char>(static_cast<unsigned char>(byte)));
        MakeFile(std::wstring{L'n', static_cast<wchar_t>(0xFF00 | byte)}, "x");
        ASSERT_TRUE(std::filesystem::exists(Folder() / name)) << byte;
        ASSERT_NE(GetFileAttributesA(NarrowPath(name.c_str()).c_str()), INVALID_FILE_ATTRIBUTES) << byte;
    }
    // The unit in front of them is a character.
    MakeFile(std::wstring(1, static_cast<wchar_t>(0xFF7F)), "x");
    EXPECT_TRUE(std::filesystem::exists(Folder() / "\xEF\xBD\xBF"));
}

TEST(LinuxPaths, UnitsAreWrittenInUtf8AndInPairsWhereTheyArePairs) {
    const struct {
        std::wstring Units;
        std::string Bytes;
    } cases[] = {{L"\x7F", "\x7F"},
                 {L"\x80", "\xC2\x80"},
                 {L"\x7FF", "\xDF\xBF"},
                 {L"\x800", "\xE0\xA0\x80"},
                 {L"\xFF7F", "\xEF\xBD\xBF"},
                 {L"\xFF80", "\x80"},
                 {L"\xFFFF", "\xFF"},
                 {L"\xD800\xDC00", "\xF0\x90\x80\x80"},
                 {L"\xDBFF\xDFFF", "\xF4\x8F\xBF\xBF"},
                 {L"\xD7FF\xDC00", "\xED\x9F\xBF\xED\xB0\x80"},
                 {L"\xDC00\xDC00", "\xED\xB0\x80\xED\xB0\x80"},
                 {L"\xD800\xDBFF", "\xED\xA0\x80\xED\xAF\xBF"},
                 {L"\xD800\xE000", "\xED\xA0\x80\xEE\x80\x80"},
                 {L"\xD800", "\xED\xA0\x80"}};
    for (const auto& oneCase : cases) {
        EXPECT_EQ(vornix::platform::HostPath(oneCase.Units.c_str()), oneCase.Bytes);
    }
}

TEST(LinuxPaths, CaseIsIgnoredOfLettersAlone) {
    using vornix::platform::EqualsIgnoringCase;
    EXPECT_TRUE(EqualsIgnoringCase("AZaz@[", "azAZ@["));
    EXPECT_FALSE(EqualsIgnoringCase("@", "`"));
    EXPECT_FALSE(EqualsIgnoringCase("[", "{"));
    EXPECT_FALSE(EqualsIgnoringCase("ab", "bb"));
    EXPECT_FALSE(EqualsIgnoringCase("ab", "aa"));
    EXPECT_FALSE(EqualsIgnoringCase("a", "ab"));
}

TEST_F(LinuxFiles, MoveNamesBytesAsTheyWere) {
    MakeFile(L"from", "x");
    EXPECT_TRUE(Move(L"from", L"M\xFFC3\xFFA4rz"));
    EXPECT_TRUE(std::filesystem::exists(Folder() / "M\xC3\xA4rz"));
}

TEST_F(LinuxFiles, NameThatIsTooLongSaysSo) {
    EXPECT_EQ(ErrorOf(Open(std::wstring(256, L'a'), GENERIC_READ, 0, OPEN_EXISTING)), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(ErrorOf(Open(std::wstring(256, L'a'), GENERIC_WRITE, 0, CREATE_NEW)), ERROR_FILENAME_EXCED_RANGE);
}

TEST_F(LinuxFiles, LinksThatLeadNowhereAreNames) {
    std::filesystem::create_symlink("none", Folder() / "dangling");
    std::filesystem::create_symlink("loop", Folder() / "loop");
    EXPECT_NE(AttributesOf("dangling"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(ErrorOf(Open(L"dangling", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ErrorOf(Open(L"loop", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_CANT_RESOLVE_FILENAME);
    MakeFile(L"from", "x");
    EXPECT_EQ(ErrorOf(Move(L"from", L"dangling")), ERROR_ALREADY_EXISTS);
}

TEST_F(LinuxFiles, LinkToAFolderIsAFolder) {
    std::filesystem::create_directory(Folder() / "folder");
    std::filesystem::create_symlink("folder", Folder() / "link");
    const DWORD attributes = AttributesOf("link");
    EXPECT_EQ(attributes & FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(LinuxFiles, PipeAndDeviceAreNoFiles) {
    ASSERT_EQ(mkfifo((Folder() / "pipe").c_str(), 0666), 0);
    const OwnedDescriptor watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watch.Get(), NarrowPath("pipe").c_str(), IN_OPEN), 0);
    EXPECT_EQ(ErrorOf(Open(L"pipe", GENERIC_READ, shareAll, OPEN_EXISTING)), ERROR_ACCESS_DENIED);
    inotify_event event;
    EXPECT_LT(read(watch.Get(), &event, sizeof event), 0) << "it was opened all the same";
    EXPECT_EQ(
        ErrorOf(CreateFileW(L"/dev/null", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)),
        ERROR_ACCESS_DENIED);
}

TEST_F(LinuxFiles, WhatIsMadeIsItsOwnersAlone) {
    const mode_t before = umask(0);
    MakeFile(L"left", "x");
    ASSERT_EQ(chmod((Folder() / "left").c_str(), 0666), 0);
    for (const auto& [name, disposition] :
         {std::pair{L"new", DWORD{CREATE_NEW}}, {L"other", DWORD{CREATE_ALWAYS}}, {L"left", DWORD{CREATE_ALWAYS}}}) {
        const ScopedHandle file(Open(name, GENERIC_WRITE, 0, disposition));
        ASSERT_NE(file.Get(), INVALID_HANDLE_VALUE);
        struct stat status {};
        ASSERT_EQ(stat((Folder() / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u) << name;
    }
    (void)umask(before);
}

TEST_F(LinuxFiles, DeviceIsNotMadeByOpeningIt) {
    for (const DWORD disposition : {DWORD{CREATE_NEW}, DWORD{CREATE_ALWAYS}}) {
        for (const auto& [path, error] : {std::pair{L"\\\\.\\x", ERROR_FILE_NOT_FOUND},
                                          {L"\\\\?\\x", ERROR_FILE_NOT_FOUND},
                                          {L"\\\\.\\PhysicalDrive999999", ERROR_FILE_NOT_FOUND},
                                          {L"\\\\.\\C:", ERROR_INVALID_PARAMETER}}) {
            EXPECT_EQ(
                ErrorOf(CreateFileW(path, GENERIC_WRITE, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr)),
                static_cast<DWORD>(error))
                << path;
        }
    }
}

TEST_F(LinuxFiles, SystemVolumeHasNoBytes) {
    const ScopedHandle volume(
        CreateFileW(L"\\\\.\\C:", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_NE(volume.Get(), INVALID_HANDLE_VALUE);
    std::array<char, 512> sector{};
    DWORD count = 0;
    EXPECT_EQ(ErrorOf(ReadFile(volume.Get(), sector.data(), 64, &count, nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ErrorOf(ReadFile(volume.Get(), sector.data(), 512, &count, nullptr)), ERROR_INVALID_FUNCTION);
}

TEST_F(LinuxFiles, ReadOnlyFileHasItsAttribute) {
    MakeFile(L"file", "x");
    EXPECT_EQ(GetFileAttributesA(NarrowPath("file").c_str()), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(GetFileAttributesA(Folder().c_str()), FILE_ATTRIBUTE_DIRECTORY);
    ASSERT_EQ(chmod((Folder() / "file").c_str(), 0444), 0);
    EXPECT_EQ(AttributesOf("file"), FILE_ATTRIBUTE_READONLY);
}

// ---------------------------------------------------------------------------------------------------------------
// Errors of the host

TEST_F(LinuxFiles, LackOfRightsIsAccessDenied) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "takes another user's rights away, which needs root";
    }
    MakeFile(L"file", "x");
    ASSERT_EQ(chmod((Folder() / "file").c_str(), 0600), 0);
    ASSERT_EQ(chmod(Folder().c_str(), 0755), 0);
    EXPECT_EQ(InChild([this] {
                  constexpr uid_t nobody = 65534;
                  if (setegid(nobody) != 0 || seteuid(nobody) != 0) {
                      return 100;
                  }
                  if (ErrorOf(Open(L"file", GENERIC_READ, 0, OPEN_EXISTING)) != ERROR_ACCESS_DENIED) {
                      return 1;
                  }
                  if (ErrorOf(Open(L"new", GENERIC_WRITE, 0, CREATE_ALWAYS)) != ERROR_ACCESS_DENIED) {
                      return 2;
                  }
                  if (ErrorOf(Move(L"file", L"other")) != ERROR_ACCESS_DENIED) {
                      return 3;
                  }
                  FILE* stream = nullptr;
                  if (fopen_s(&stream, NarrowPath("file").c_str(), "rb") != EACCES ||
                      GetLastError() != ERROR_ACCESS_DENIED) {
                      return 4;
                  }
                  return 0;
              }),
              0);
    EXPECT_EQ(ContentOf(L"file"), "x");
}

TEST_F(LinuxFiles, TooManyOpenFilesSaySo) {
    MakeFile(L"file", "x");
    EXPECT_EQ(InChild([this] {
                  const struct rlimit limit { 3, 3 };
                  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
                      return 100;
                  }
                  return ErrorOf(Open(L"file", GENERIC_READ, 0, OPEN_EXISTING)) == ERROR_TOO_MANY_OPEN_FILES ? 0 : 1;
              }),
              0);
}

TEST_F(LinuxFiles, WriteBeyondTheLargestFileFillsTheDisk) {
    EXPECT_EQ(InChild([this] {
                  const struct rlimit limit { 1 << 20, 1 << 20 };
                  if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR) {
                      return 100;
                  }
                  const HANDLE file = Open(L"file", GENERIC_WRITE, 0, CREATE_NEW);
                  const std::vector<char> buffer(3 << 19, 'x');
                  DWORD count = 0;
                  const BOOL written =
                      WriteFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr);
                  return !written && GetLastError() == ERROR_DISK_FULL && count == 1 << 20 ? 0 : 1;
              }),
              0);
}

TEST_F(LinuxFiles, FullDiskTellsHowFarTheWriteCame) {
    const std::string point = NarrowPath("small");
    std::filesystem::create_directory(point);
    if (mount("none", point.c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "mounting is not allowed here";
    }
    // A process of its own: the close of a file that a write failed on ends it.
    EXPECT_EQ(InChild([this] {
                  const HANDLE file = Open(L"small/file", GENERIC_WRITE, 0, CREATE_NEW);
                  const std::vector<char> buffer(2 << 20, 'x');
                  DWORD count = 0;
                  const BOOL written =
                      WriteFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr);
                  return !written && GetLastError() == ERROR_DISK_FULL && count > 0 && count <= 1u << 20 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(mount("none", point.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(ErrorOf(Open(L"small/other", GENERIC_WRITE, 0, CREATE_NEW)), ERROR_WRITE_PROTECT);
    MakeFile(L"from", "x");
    EXPECT_EQ(ErrorOf(Move(L"from", L"small/to")), ERROR_NOT_SAME_DEVICE);
    EXPECT_EQ(umount(point.c_str()), 0);
}

TEST_F(LinuxFiles, FailedTransferTellsItsErrorAndHowFarItCame) {
    MakeFile(L"file", std::string(100, 'x'));
    const ScopedHostCalls scope;
    char buffer[100] = {};
    DWORD count = 99;
    const struct {
        int HostError;
        DWORD Error;
    } cases[] = {{EIO, ERROR_CRC},
                 {ENOSPC, ERROR_DISK_FULL},
                 {EDQUOT, ERROR_DISK_FULL},
                 {EROFS, ERROR_WRITE_PROTECT},
                 {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
                 {ENOLINK, ERROR_GEN_FAILURE}};
    for (const auto& oneCase : cases) {
        // A process of its own: the close of a file that a write failed on ends it.
        EXPECT_EQ(
            InChild([&] {
                const HANDLE file = Open(L"file", readWrite, 0, OPEN_EXISTING);
                TheHostCalls().TransferError = oneCase.HostError;
                TheHostCalls().LongestTransfer = 30;
                TheHostCalls().FailTransferAfter = 2;
                if (ReadFile(file, buffer, 100, &count, nullptr) || GetLastError() != oneCase.Error || count != 60) {
                    return 1;
                }
                TheHostCalls().FailTransferAfter = 0;
                return !WriteFile(file, buffer, 100, &count, nullptr) && GetLastError() == oneCase.Error && count == 0
                           ? 0
                           : 2;
            }),
            0)
            << oneCase.HostError;
    }
}

TEST_F(LinuxFiles, ShortAndInterruptedTransfersGoOn) {
    std::string content(10'000, '\0');
    for (size_t i = 0; i < content.size(); i++) {
        content[i] = static_cast<char>(i * 31);
    }
    {
        const ScopedHostCalls scope;
        TheHostCalls().LongestTransfer = 333;
        TheHostCalls().InterruptTransfers = 3;
        MakeFile(L"file", content);
        TheHostCalls().InterruptTransfers = 3;
        EXPECT_EQ(ContentOf(L"file"), content);
    }
    EXPECT_EQ(ContentOf(L"file"), content);
}

// ---------------------------------------------------------------------------------------------------------------
// The way to the medium

class LinuxDurableFiles : public LinuxFiles {
protected:
    using Names = std::vector<std::string>;

    static BOOL Write(HANDLE file, uint64_t offset, const std::string& bytes) {
        DWORD count = 0;
        return Seek(file, offset) && WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr) &&
               count == bytes.size();
    }

    // The bytes of the disk that a file takes.
    uint64_t RoomOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(stat(NarrowPath(name).c_str(), &status), 0);
        return static_cast<uint64_t>(status.st_blocks) * 512;
    }

    std::string Report(const std::string& name, DWORD error) const { return MediumReport(NarrowPath(name), error); }
};

TEST_F(LinuxDurableFiles, GapInFrontOfAWriteHasItsRoom) {
    constexpr uint64_t gap = 300'000;
    for (const bool hasAllocation : {true, false}) {
        const std::wstring name = hasAllocation ? L"allocated" : L"zeros";
        const ScopedHostCalls scope;
        TheHostCalls().HasAllocation = hasAllocation;
        {
            const ScopedHandle file(Open(name, GENERIC_WRITE, 0, CREATE_NEW));
            ASSERT_TRUE(Write(file.Get(), gap, "behind"));
            ASSERT_TRUE(Write(file.Get(), 2 * gap, "far behind"));
            ASSERT_TRUE(Write(file.Get(), 0, "front"));
        }
        EXPECT_GE(RoomOf(hasAllocation ? "allocated" : "zeros"), 2 * gap);
        std::string expected(2 * gap, '\0');
        expected.replace(0, 5, "front");
        expected.replace(gap, 6, "behind");
        EXPECT_EQ(ContentOf(name), expected + "far behind");
    }
}

TEST_F(LinuxDurableFiles, GapOfSeveralPiecesIsFilledUpToTheWriteAndNoFurther) {
    const ScopedHostCalls scope;
    TheHostCalls().HasAllocation = false;
    constexpr uint64_t gap = 1'300'000;
    {
        const ScopedHandle file(Open(L"file", GENERIC_WRITE, 0, CREATE_NEW));
        ASSERT_TRUE(Write(file.Get(), gap, "behind")) << GetLastError();
    }
    EXPECT_GE(RoomOf("file"), gap);
    EXPECT_EQ(std::filesystem::file_size(Folder() / "file"), gap + 6);
}

TEST_F(LinuxDurableFiles, GapIsFilledByteByByteWhereTheHostTakesNoMore) {
    const ScopedHostCalls scope;
    TheHostCalls().HasAllocation = false;
    TheHostCalls().LongestTransfer = 1;
    {
        const ScopedHandle file(Open(L"file", GENERIC_WRITE, 0, CREATE_NEW));
        ASSERT_TRUE(Write(file.Get(), 5, "behind")) << GetLastError();
    }
    EXPECT_EQ(ContentOf(L"file"), std::string(5, '\0') + "behind");
}

TEST_F(LinuxDurableFiles, GapOfAnUnbufferedFileStaysAHoleWhereTheHostGivesNoRoom) {
    const ScopedHostCalls scope;
    TheHostCalls().HasAllocation = false;
    const std::string sectors(8192, 's');
    {
        const ScopedHandle file(Open(L"file", GENERIC_WRITE, 0, CREATE_NEW, FILE_FLAG_NO_BUFFERING));
        ASSERT_TRUE(Write(file.Get(), 65536, sectors)) << GetLastError();
    }
    EXPECT_EQ(ContentOf(L"file"), std::string(65536, '\0') + sectors);
}

TEST_F(LinuxDurableFiles, GapThatHasNoRoomFailsTheWriteThatIsBehindIt) {
    const std::string point = NarrowPath("small");
    std::filesystem::create_directory(point);
    if (mount("none", point.c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "mounting is not allowed here";
    }
    for (const bool hasAllocation : {true, false}) {
        EXPECT_EQ(InChild([&] {
                      const ScopedHostCalls scope;
                      TheHostCalls().HasAllocation = hasAllocation;
                      const HANDLE file = Open(L"small/file", GENERIC_WRITE, 0, CREATE_ALWAYS);
                      return !Write(file, 2 << 20, "behind") && GetLastError() == ERROR_DISK_FULL ? 0 : 1;
                  }),
                  0);
        if (hasAllocation) {
            EXPECT_EQ(std::filesystem::file_size(Folder() / "small" / "file"), 0u) << "filled although it has no room";
        }
    }
    EXPECT_EQ(umount(point.c_str()), 0);
}

TEST_F(LinuxDurableFiles, CloseBringsBytesAndANewNameToTheDiskAndLeavesTheCache) {
    const ScopedHostCalls scope;
    const Names& order = TheHostCalls().Order;
    MakeFile(L"file", "content");
    EXPECT_EQ(order, (Names{"sync file", "sync folder", "drop"}));
    TheHostCalls().Order.clear();
    EXPECT_EQ(ContentOf(L"file"), "content");
    { const ScopedHandle untouched(Open(L"file", readWrite, 0, OPEN_EXISTING)); }
    EXPECT_EQ(order, Names{});
    {
        const ScopedHandle changed(Open(L"file", GENERIC_WRITE, 0, OPEN_EXISTING));
        ASSERT_TRUE(Write(changed.Get(), 0, "C"));
    }
    EXPECT_EQ(order, (Names{"sync file", "drop"}));
    TheHostCalls().Order.clear();
    { const ScopedHandle emptied(Open(L"file", GENERIC_WRITE, 0, CREATE_ALWAYS)); }
    EXPECT_EQ(order, (Names{"sync file", "drop"}));
}

TEST_F(LinuxDurableFiles, NothingIsBroughtToTheDiskBesideAMachineThatIsDescribed) {
    EXPECT_EQ(InChild([&] {
                  const ScopedHostCalls scope;
                  vornix::platform::LeaveFilesInCache();
                  MakeFile(L"file", "content");
                  return TheHostCalls().Order.empty() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(ContentOf(L"file"), "content");
}

TEST_F(LinuxDurableFiles, WrittenPagesAreNotInMemoryBehindTheClose) {
    constexpr size_t size = 1 << 20;
    MakeFile(L"file", std::string(size, 'x'));
    const int descriptor = open(NarrowPath("file").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    void* const view = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
    ASSERT_NE(view, MAP_FAILED);
    std::vector<unsigned char> pages(size / static_cast<size_t>(sysconf(_SC_PAGESIZE)));
    ASSERT_EQ(mincore(view, size, pages.data()), 0);
    (void)munmap(view, size);
    (void)close(descriptor);
    const auto inMemory = std::count_if(pages.begin(), pages.end(), [](unsigned char page) { return (page & 1) != 0; });
    if (inMemory == static_cast<ptrdiff_t>(pages.size())) {
        GTEST_SKIP() << "files are in memory alone here";
    }
    EXPECT_EQ(inMemory, 0);
}

// This name has them run first, while there is no other thread.
using LinuxFilesDeathTest = LinuxDurableFiles;

TEST_F(LinuxFilesDeathTest, CloseBehindAFailedWriteEndsTheProcess) {
    const auto run = [this] {
        const HANDLE file = Open(L"file", GENERIC_WRITE, 0, CREATE_NEW);
        TheHostCalls().TransferError = ENOSPC;
        TheHostCalls().FailTransferAfter = 1;
        std::printf("printed before\n"); // which arrives
        if (!Write(file, 0, "one") || Write(file, 0, "two") || !Write(file, 3, "three")) {
            _exit(2);
        }
        (void)CloseHandle(file);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(1), Report("file", ERROR_DISK_FULL));
    // What failed before the medium was asked changes nothing of the file.
    MakeFile(L"other", "content");
    const ScopedHandle reader(Open(L"other", GENERIC_READ, 0, OPEN_EXISTING));
    EXPECT_FALSE(Write(reader.Get(), 0, "x"));
}

TEST_F(LinuxFilesDeathTest, CloseOfBytesThatDoNotReachTheMediumEndsTheProcess) {
    const auto run = [this](int HostCalls::*call, int error) {
        const HANDLE file = Open(L"file", GENERIC_WRITE, 0, CREATE_NEW);
        TheHostCalls().*call = error;
        if (!Write(file, 0, "content")) {
            _exit(2);
        }
        (void)CloseHandle(file);
    };
    EXPECT_EXIT(run(&HostCalls::SyncError, EIO), testing::ExitedWithCode(1), Report("file", ERROR_CRC));
    std::filesystem::remove(Folder() / "file");
    EXPECT_EXIT(run(&HostCalls::CloseError, EDQUOT), testing::ExitedWithCode(1), Report("file", ERROR_DISK_FULL));
    std::filesystem::remove(Folder() / "file");
    EXPECT_EXIT(run(&HostCalls::FolderSyncError, EIO), testing::ExitedWithCode(1), Report("file", ERROR_CRC));
}

TEST_F(LinuxDurableFiles, FileSystemThatSyncsNoFolderIsSyncedWhole) {
    const ScopedHostCalls scope;
    HostCalls& calls = TheHostCalls();
    for (const int error : {EINVAL, EBADF}) {
        calls.FolderSyncError = error;
        MakeFile(L"file", "content");
        EXPECT_EQ(calls.Order, (Names{"sync file", "sync folder", "sync file system", "drop"}));
        calls.Order.clear();
        EXPECT_TRUE(Move(L"file", L"other"));
        EXPECT_EQ(calls.Order, (Names{"sync file", "rename", "sync file", "sync folder", "sync file system"}));
        calls.Order.clear();
        std::filesystem::remove(Folder() / "other");
    }
    MakeFile(L"file", "content");
    calls.WholeSyncError = EIO;
    EXPECT_EQ(ErrorOf(Move(L"file", L"other")), ERROR_CRC);
    // A folder that cannot be brought to the disk is another matter, and nothing else is tried.
    calls.FolderSyncError = ENOSPC;
    calls.Order.clear();
    EXPECT_EQ(ErrorOf(Move(L"other", L"file")), ERROR_DISK_FULL);
    EXPECT_EQ(calls.Order, (Names{"sync file", "rename", "sync file", "sync folder"}));
}

TEST_F(LinuxDurableFiles, FolderThatMayNotBeReadIsSyncedWithItsFileSystem) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user, who is refused what root is not";
    }
    ASSERT_EQ(chmod(Folder().c_str(), 0333), 0);
    EXPECT_EQ(InChild([this] {
                  const ScopedHostCalls scope;
                  constexpr uid_t nobody = 65534;
                  if (setuid(nobody) != 0) {
                      return 100;
                  }
                  MakeFile(L"file", "content");
                  if (TheHostCalls().Order != Names{"sync file", "sync file system", "drop"}) {
                      return 1;
                  }
                  TheHostCalls().Order.clear();
                  return Move(L"file", L"other") &&
                                 TheHostCalls().Order ==
                                     Names{"sync file", "rename", "sync file", "sync file system", "sync file system"}
                             ? 0
                             : 2;
              }),
              0);
}

TEST_F(LinuxFiles, CloseOfAFileThatWasOnlyReadTellsItsError) {
    const ScopedHostCalls scope;
    MakeFile(L"file", "content");
    const HANDLE file = Open(L"file", GENERIC_READ, 0, OPEN_EXISTING);
    TheHostCalls().OtherCloseError = EIO;
    EXPECT_EQ(ErrorOf(CloseHandle(file)), ERROR_CRC);
    const HANDLE again = Open(L"file", GENERIC_READ, 0, OPEN_EXISTING); // the one before is gone all the same
    ASSERT_NE(again, INVALID_HANDLE_VALUE);
    TheHostCalls().OtherCloseError = EINTR;
    EXPECT_TRUE(CloseHandle(again));
}

// ---------------------------------------------------------------------------------------------------------------
// Share modes between processes

TEST_F(LinuxFiles, ShareModesHoldBetweenProcesses) {
    MakeFile(L"file", "x");
    {
        const ScopedHandle writer(Open(L"file", GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING));
        EXPECT_EQ(InChild([this] {
                      if (ErrorOf(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING)) !=
                          ERROR_SHARING_VIOLATION) {
                          return 1;
                      }
                      if (ErrorOf(Open(L"file", GENERIC_WRITE, shareAll, CREATE_ALWAYS)) != ERROR_SHARING_VIOLATION) {
                          return 2;
                      }
                      if (ErrorOf(Move(L"file", L"other")) != ERROR_SHARING_VIOLATION) {
                          return 3;
                      }
                      return Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING) != INVALID_HANDLE_VALUE ? 0 : 4;
                  }),
                  0);
    }
    EXPECT_EQ(ContentOf(L"file"), "x");
}

TEST_F(LinuxFiles, EndOfAProcessGivesItsFilesBack) {
    MakeFile(L"file", "x");
    EXPECT_EQ(InChild([this] { return Open(L"file", readWrite, 0, OPEN_EXISTING) != INVALID_HANDLE_VALUE ? 0 : 1; }),
              0);
    const ScopedHandle file(Open(L"file", readWrite, 0, OPEN_EXISTING));
    EXPECT_TRUE(file.IsOpen());
}

TEST_F(LinuxFiles, OneOfManyThatWantAFileAloneGetsIt) {
    MakeFile(L"file", "x");
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    constexpr int contenders = 6;
    std::vector<pid_t> children;
    for (int i = 0; i < contenders; i++) {
        const pid_t child = fork();
        if (child == 0) {
            const HANDLE file = Open(L"file", readWrite, 0, OPEN_EXISTING);
            const char won = file != INVALID_HANDLE_VALUE ? 1 : 0;
            // Held until all have tried: the parent closes its end only then.
            if (write(channel[1], &won, 1) != 1) {
                _exit(1);
            }
            pause();
        }
        children.push_back(child);
    }
    int winners = 0;
    for (int i = 0; i < contenders; i++) {
        char won = 0;
        ASSERT_EQ(read(channel[0], &won, 1), 1);
        winners += won;
    }
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
    }
    close(channel[0]);
    close(channel[1]);
    EXPECT_EQ(winners, 1);
}

TEST_F(LinuxFiles, FileThatGotAnotherNameBeforeItWasClaimedIsNotCutOff) {
    for (const bool isNameTakenAgain : {false, true}) {
        const std::wstring finished = isNameTakenAgain ? L"finished2" : L"finished1";
        MakeFile(L"file", "content");
        const ScopedHostCalls scope;
        bool isFirst = true;
        TheHostCalls().BeforeLock = [&] {
            if (!std::exchange(isFirst, false)) {
                return;
            }
            std::filesystem::rename(Folder() / "file", Folder() / finished);
            if (isNameTakenAgain) {
                std::ofstream(Folder() / "file") << "another";
            }
        };
        ScopedHandle file(Open(L"file", GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS));
        ASSERT_TRUE(file.IsOpen());
        EXPECT_EQ(GetLastError(), isNameTakenAgain ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
        EXPECT_EQ(ContentOf(finished), "content");
        EXPECT_EQ(std::filesystem::file_size(Folder() / "file"), 0U);
        file.Close();
        std::filesystem::remove(Folder() / "file");
    }
}

TEST_F(LinuxFiles, NameThatAlwaysLeadsElsewhereIsInUse) {
    const ScopedHostCalls scope;
    TheHostCalls().BeforeLock = [this] { std::filesystem::remove(Folder() / "file"); };
    EXPECT_EQ(ErrorOf(Open(L"file", GENERIC_WRITE, 0, CREATE_ALWAYS)), ERROR_SHARING_VIOLATION);
}

TEST_F(LinuxFiles, OpenThatGivesWayLeavesNothingBehindAndTriesAgain) {
    MakeFile(L"file", "x");
    const HANDLE other = Open(L"file", readWrite, 0, OPEN_EXISTING);
    const OwnedDescriptor looker(open(NarrowPath("file").c_str(), O_RDONLY | O_CLOEXEC));
    const ScopedHostCalls scope;
    // Four facts are stated, then taken back; the other goes just then.
    int calls = 0;
    bool isHeld = true;
    TheHostCalls().BeforeLock = [&] {
        calls++;
        if (calls == 5) {
            EXPECT_TRUE(CloseHandle(other));
        } else if (calls == 6) {
            isHeld = vornix::platform::IsHeldByAnother(looker.Get());
        }
    };
    const ScopedHandle file(Open(L"file", readWrite, 0, OPEN_EXISTING));
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(calls, 9);
    EXPECT_FALSE(isHeld);
    TheHostCalls().BeforeLock = nullptr;
    const int next = dup(looker.Get());
    close(next);
    EXPECT_EQ(Open(L"file", readWrite, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    const int nextBehind = dup(looker.Get());
    close(nextBehind);
    EXPECT_EQ(next, nextBehind) << "the refused one stayed open";
}

TEST_F(LinuxFiles, WhatNeverWasAHandleIsNone) {
    MakeFile(L"file", "x");
    const ScopedHandle file(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING));
    const auto value = reinterpret_cast<uintptr_t>(file.Get());
    // Of no slot, of one far behind the last, with bits that none has, and of a generation to come.
    for (const uintptr_t wrong :
         {uintptr_t{0}, uintptr_t{3} << 20, value + 1, value + 2, value + (uintptr_t{1} << 22)}) {
        SetLastError(0);
        EXPECT_EQ(ErrorOf(CloseHandle(reinterpret_cast<HANDLE>(wrong))), ERROR_INVALID_HANDLE) << wrong;
    }
}

TEST_F(LinuxFiles, FileSystemWithoutLocksStillOpens) {
    const ScopedHostCalls scope;
    TheHostCalls().HasLocks = false;
    MakeFile(L"file", "x");
    EXPECT_EQ(ContentOf(L"file"), "x");
    EXPECT_TRUE(Move(L"file", L"other"));
}

TEST_F(LinuxFiles, StreamHoldsItsFileAgainstWriters) {
    MakeFile(L"file", "x");
    FILE* stream = nullptr;
    ASSERT_EQ(fopen_s(&stream, NarrowPath("file").c_str(), "rb"), 0);
    EXPECT_EQ(ErrorOf(Open(L"file", GENERIC_WRITE, shareAll, OPEN_EXISTING)), ERROR_SHARING_VIOLATION);
    fclose(stream);
    const ScopedHandle writer(Open(L"file", GENERIC_WRITE, 0, OPEN_EXISTING));
    ASSERT_TRUE(writer.IsOpen());
    EXPECT_EQ(fopen_s(&stream, NarrowPath("file").c_str(), "rb"), EACCES);
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(stream, nullptr);
}

// ---------------------------------------------------------------------------------------------------------------
// Unbuffered files

TEST_F(LinuxFiles, UnbufferedTransfersAreWholeSectors) {
    constexpr DWORD block = 4096;
    std::string content(3 * block, '\0');
    for (size_t i = 0; i < content.size(); i++) {
        content[i] = static_cast<char>(i * 7 + i / 256);
    }
    MakeFile(L"file", content.substr(0, 2 * block + 100));
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING));
    ASSERT_TRUE(file.IsOpen()) << GetLastError();
    auto* const aligned = static_cast<char*>(_aligned_malloc(4 * block, block));
    DWORD count = 99;
    EXPECT_EQ(ErrorOf(ReadFile(file.Get(), aligned, 100, &count, nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(Seek(file.Get(), 100));
    EXPECT_EQ(ErrorOf(ReadFile(file.Get(), aligned, block, &count, nullptr)), ERROR_INVALID_PARAMETER);
    // The end of the file cuts a transfer anywhere.
    EXPECT_TRUE(Seek(file.Get(), block));
    EXPECT_TRUE(ReadFile(file.Get(), aligned, 2 * block, &count, nullptr));
    EXPECT_EQ(count, block + 100);
    EXPECT_EQ(std::string(aligned, count), content.substr(block, count));
    // Memory of any alignment serves.
    EXPECT_TRUE(Seek(file.Get(), block));
    EXPECT_TRUE(ReadFile(file.Get(), aligned + 1, 2 * block, &count, nullptr));
    EXPECT_EQ(std::string(aligned + 1, count), content.substr(block, block + 100));
    EXPECT_TRUE(Seek(file.Get(), 0));
    EXPECT_TRUE(ReadFile(file.Get(), aligned + 1, 2 * block, &count, nullptr));
    EXPECT_EQ(count, 2 * block);
    EXPECT_EQ(std::string(aligned + 1, count), content.substr(0, count));
    _aligned_free(aligned);
}

TEST_F(LinuxFiles, FileIsOpenedForWhatIsAsked) {
    MakeFile(L"file", "x");
    for (const auto& [access, mode] :
         {std::pair<DWORD, int>{GENERIC_READ, O_RDONLY}, {GENERIC_WRITE, O_WRONLY}, {readWrite, O_RDWR}}) {
        const ScopedHandle file(Open(L"file", access, shareAll, OPEN_EXISTING));
        EXPECT_EQ(fcntl(FindObject(file.Get())->Descriptor, F_GETFL) & O_ACCMODE, mode);
    }
}

TEST_F(LinuxFiles, UnbufferedTransfersFollowTheRulesOfTheFileSystem) {
    MakeFile(L"file", "x");
    const ScopedHostCalls scope;
#ifdef STATX_DIOALIGN
    const struct {
        bool Tells;
        uint32_t OffsetAlignment;
        uint32_t MemoryAlignment;
        uint32_t ExpectedSector;
        uint32_t ExpectedMemory;
    } cases[] = {{true, 4096, 64, 4096, 64}, {true, 1, 4, 512, 4}, {true, 0, 64, 512, 1}, {false, 4096, 64, 512, 512}};
    for (const auto& oneCase : cases) {
        TheHostCalls().ChangeStatx = [&](struct statx& status) {
            status.stx_mask = oneCase.Tells ? STATX_DIOALIGN : 0;
            status.stx_dio_offset_align = oneCase.OffsetAlignment;
            status.stx_dio_mem_align = oneCase.MemoryAlignment;
        };
        const ScopedHandle file(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING));
        const OpenObject& object = *FindObject(file.Get());
        EXPECT_EQ(object.SectorSize, oneCase.ExpectedSector);
        EXPECT_EQ(object.MemoryAlignment, oneCase.ExpectedMemory);
        EXPECT_EQ((fcntl(object.Descriptor, F_GETFL) & O_DIRECT) != 0, oneCase.ExpectedMemory != 1);
    }
#endif
    // One that is made up as it is read.
    const ScopedHandle file(
        CreateFileW(L"/proc/version", GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr));
    ASSERT_TRUE(file.IsOpen()) << GetLastError();
    EXPECT_EQ(FindObject(file.Get())->SectorSize, 512u);
    EXPECT_EQ(FindObject(file.Get())->MemoryAlignment, 1u);
}

TEST_F(LinuxFiles, RunThatOpenedAFileHasOtherWorkThanItsOutput) {
    vornix::platform::WorkAccount& account = vornix::platform::AccountOfRun();
    account.HasOtherWork = false;
    EXPECT_EQ(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(account.HasOtherWork);
    MakeFile(L"file", "x");
    EXPECT_TRUE(account.HasOtherWork);
    EXPECT_EQ(account.File, NarrowPath("file"));
    account.HasOtherWork = false;
    EXPECT_EQ(ContentOf(L"file"), "x");
    EXPECT_TRUE(account.HasOtherWork);
    EXPECT_EQ(account.File, NarrowPath("file"));
    EXPECT_TRUE(Move(L"file", L"named")) << GetLastError();
    EXPECT_EQ(account.File, "");
}

TEST_F(LinuxFiles, ClosedFileLeavesNoMemoryBehind) {
    MakeFile(L"file", std::string(8192, 'x'));
    auto* const aligned = static_cast<char*>(_aligned_malloc(8192, 4096));
    size_t before = 0;
    for (int time = 0; time < 3; time++) {
        const ScopedHandle file(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING));
        DWORD count = 0;
        EXPECT_EQ(mallinfo2().hblkhd, time == 0 ? mallinfo2().hblkhd : before);
        before = mallinfo2().hblkhd;
        EXPECT_TRUE(ReadFile(file.Get(), aligned + 1, 4096, &count, nullptr));
    }
    _aligned_free(aligned);
}

// ---------------------------------------------------------------------------------------------------------------
// The rename: MoveFileExW

TEST_F(LinuxFiles, MoveBringsBytesAndNamesToTheDisk) {
    MakeFile(L"from", "content");
    std::filesystem::create_directory(Folder() / "folder");
    const ScopedHostCalls scope;
    EXPECT_TRUE(Move(L"from", L"to"));
    EXPECT_EQ(TheHostCalls().Order, (std::vector<std::string>{"sync file", "rename", "sync file", "sync folder"}));
    TheHostCalls().Order.clear();
    EXPECT_TRUE(Move(L"to", L"folder/to"));
    EXPECT_EQ(TheHostCalls().Order,
              (std::vector<std::string>{"sync file", "rename", "sync file", "sync folder", "sync folder"}));
}

TEST_F(LinuxFiles, MoveOnExtHasWhatTheFolderWroteFlushed) {
    MakeFile(L"from", "content");
    ASSERT_EQ(chmod((Folder() / "from").c_str(), 0640), 0);
    const ScopedHostCalls scope;
    HostCalls& calls = TheHostCalls();
    calls.IsExt = true;
    EXPECT_TRUE(Move(L"from", L"to"));
    EXPECT_EQ(calls.Order, (std::vector<std::string>{"sync file", "rename", "sync file", "sync folder",
                                                     "set permissions", "sync file"}));
    struct stat status {};
    ASSERT_EQ(stat((Folder() / "to").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    calls.FailSyncAfter = 2;
    calls.SyncError = EIO;
    EXPECT_EQ(ErrorOf(Move(L"to", L"from")), ERROR_CRC);
}

TEST_F(LinuxFiles, MoveOfBytesThatDoNotReachTheDiskFails) {
    MakeFile(L"from", "content");
    const ScopedHostCalls scope;
    TheHostCalls().SyncError = ENOSPC;
    EXPECT_EQ(ErrorOf(Move(L"from", L"to")), ERROR_DISK_FULL);
    EXPECT_EQ(TheHostCalls().Order, std::vector<std::string>{"sync file"});
    EXPECT_TRUE(std::filesystem::exists(Folder() / "from"));
    EXPECT_FALSE(std::filesystem::exists(Folder() / "to"));
}

TEST_F(LinuxFiles, MoveNeverReplacesOnAnyFileSystem) {
    for (const bool hasHardLinks : {true, false}) {
        MakeFile(L"from", "new");
        MakeFile(L"taken", "old");
        const ScopedHostCalls scope;
        TheHostCalls().HasRenameWithoutReplacing = false;
        TheHostCalls().HasHardLinks = hasHardLinks;
        EXPECT_EQ(ErrorOf(Move(L"from", L"taken")), ERROR_ALREADY_EXISTS);
        EXPECT_EQ(ContentOf(L"taken"), "old");
        EXPECT_EQ(ErrorOf(Move(L"from", L"none/to")), ERROR_PATH_NOT_FOUND);
        EXPECT_TRUE(Move(L"from", L"to"));
        EXPECT_EQ(ContentOf(L"to"), "new");
        EXPECT_FALSE(std::filesystem::exists(Folder() / "from"));
        std::filesystem::remove(Folder() / "to");
        std::filesystem::remove(Folder() / "taken");
    }
}

TEST_F(LinuxFiles, MoveOfAFolderKeepsItsContent) {
    std::filesystem::create_directory(Folder() / "from");
    MakeFile(L"from/file", "content");
    EXPECT_TRUE(Move(L"from", L"to"));
    EXPECT_EQ(ContentOf(L"to/file"), "content");
}

} // namespace
