// Transfers that go on beside the program: what is read ahead and what is written behind, on files and on disks, and
// that nothing of a failure there is lost.
#include "temporary_folder.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include "linux/overlapped_transfers.h"
#include "linux_host_calls.h"
#include "linux_loop_disks.h"

namespace {

using LinuxFiles = TemporaryFolderTest;

// Closes a file of which another thread's transfer is held under way, and lets that go on a little later.
void ExpectCloseToWait(ScopedHandle& file) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (TheOtherThreads().UnderWay == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(TheOtherThreads().UnderWay, 1);
    TheHostCalls().HasClosedUnderWay = false;
    std::thread later([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        TheOtherThreads().AreHeld = false;
    });
    file.Close();
    EXPECT_EQ(TheOtherThreads().UnderWay, 0);
    EXPECT_FALSE(TheHostCalls().HasClosedUnderWay);
    later.join();
}

// ---------------------------------------------------------------------------------------------------------------
// Reading ahead

// Waits until other threads have come so far.
bool ReachesWithin(const std::atomic<uint64_t>& reached, uint64_t end, std::chrono::seconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (reached < end && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return reached >= end;
}

constexpr std::chrono::seconds patience{60};

class LinuxReadAhead : public LinuxFiles {
protected:
    // A file of `reads` reads, each different from the others.
    void MakeFileToRead(unsigned reads) {
        content_.resize(reads * length);
        for (size_t i = 0; i < content_.size(); i++) {
            content_[i] = static_cast<char>(i * 31 + i / 4096 + i / length);
        }
        MakeFile(L"file", content_);
    }

    void Read(const ScopedHandle& file) {
        LARGE_INTEGER position{};
        ASSERT_TRUE(SetFilePointerEx(file.Get(), LargeInteger(0), &position, FILE_CURRENT));
        DWORD count = 0;
        ASSERT_TRUE(ReadFile(file.Get(), buffer_.data(), length, &count, nullptr));
        ASSERT_EQ(count, length);
        ASSERT_EQ(std::memcmp(buffer_.data(), content_.data() + position.QuadPart, length), 0) << position.QuadPart;
    }

    static constexpr DWORD length = DWORD{1} << 20;
    std::string content_;
    std::vector<char> buffer_ = std::vector<char>(length);
};

TEST_F(LinuxReadAhead, ReadsInSequenceHaveTheNextOneReadByAnotherThread) {
    MakeFileToRead(5);
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    const ScopedHostCalls scope;
    Read(file);
    Read(file);
    EXPECT_TRUE(ReachesWithin(TheOtherThreads().ReadTo, 3 * length, patience));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(TheOtherThreads().ReadFrom, 2 * length);
    EXPECT_EQ(TheOtherThreads().ReadTo, 3 * length) << "no further than one read";
    // What another thread has read is not read once more.
    TheHostCalls().FailTransferAfter = 0;
    TheHostCalls().TransferError = EIO;
    Read(file);
    Read(file);
}

TEST_F(LinuxReadAhead, EndOfTheFileIsAsFarAsItGoes) {
    MakeFileToRead(3);
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    const ScopedHostCalls scope;
    Read(file);
    Read(file);
    EXPECT_TRUE(ReachesWithin(TheOtherThreads().ReadTo, 3 * length, patience));
    Read(file);
    DWORD count = 1;
    ASSERT_TRUE(ReadFile(file.Get(), buffer_.data(), length, &count, nullptr));
    EXPECT_EQ(count, 0u);
}

TEST_F(LinuxReadAhead, OtherReadsBringNothing) {
    MakeFileToRead(6);
    const ScopedHostCalls scope;
    {
        const ScopedHandle once(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
        Read(once);
        // Elsewhere, and then in sequence but short.
        ASSERT_TRUE(Seek(once.Get(), 3 * length));
        Read(once);
        DWORD count = 0;
        for (int i = 0; i < 4; i++) {
            ASSERT_TRUE(ReadFile(once.Get(), buffer_.data(), 65536 - 4096, &count, nullptr));
        }
    }
    EXPECT_EQ(TheOtherThreads().ReadTo, 0u);
}

TEST_F(LinuxReadAhead, LengthsBetweenTheTwoLimitsAreFollowedByAnother) {
    constexpr DWORD shortest = 64 << 10;
    constexpr DWORD longest = 32 << 20;
    std::vector<char> buffer(longest + 4096);
    for (const DWORD size : {shortest - 1, shortest, longest, longest + 1}) {
        std::ofstream(Folder() / "file") << "";
        std::filesystem::resize_file(Folder() / "file", 3ull * size);
        const ScopedHostCalls scope;
        const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
        DWORD count = 0;
        for (int i = 0; i < 3; i++) {
            ASSERT_TRUE(ReadFile(file.Get(), buffer.data(), size, &count, nullptr));
        }
        EXPECT_EQ(TheOtherThreads().ReadTo, size >= shortest && size <= longest ? uint64_t{3} * size : 0) << size;
    }
}

TEST_F(LinuxReadAhead, ReaderThatGoesElsewhereFindsWhatIsThere) {
    MakeFileToRead(6);
    const ScopedHostCalls scope;
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    Read(file);
    Read(file);
    ASSERT_TRUE(ReachesWithin(TheOtherThreads().ReadTo, 3 * length, patience));
    // Past the rules of sharing, so that an old byte is seen.
    std::fill_n(content_.begin() + 2 * length, length, 'n');
    std::ofstream(Folder() / "file", std::ios::binary | std::ios::in | std::ios::out) << content_;
    ASSERT_TRUE(Seek(file.Get(), 4 * length));
    Read(file);
    ASSERT_TRUE(Seek(file.Get(), 2 * length));
    Read(file);
}

TEST_F(LinuxReadAhead, ShorterReadTakesTheFrontOfWhatIsThere) {
    MakeFileToRead(4);
    const ScopedHostCalls scope;
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    Read(file);
    Read(file);
    DWORD count = 0;
    ASSERT_TRUE(ReadFile(file.Get(), buffer_.data(), 70000, &count, nullptr));
    ASSERT_EQ(count, 70000u);
    EXPECT_EQ(std::memcmp(buffer_.data(), content_.data() + 2 * length, 70000), 0);
    Read(file);
}

// Which in a file is any byte, and in the program's memory the beginning of a large page.
TEST_F(LinuxReadAhead, LargeReadsBringWhatSmallOnesDo) {
    constexpr unsigned factor = 4;
    MakeFileToRead(3 * factor);
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    struct Free {
        void operator()(char* block) const { _aligned_free(block); }
    };
    const std::unique_ptr<char, Free> block(static_cast<char*>(_aligned_malloc(factor * length, 4096)));
    for (const size_t start : {size_t{0}, size_t{12345}}) {
        ASSERT_TRUE(Seek(file.Get(), start));
        for (size_t position = start; position < content_.size();) {
            const size_t expected = std::min<size_t>(factor * length, content_.size() - position);
            std::memset(block.get(), 0, factor * length);
            DWORD count = 0;
            ASSERT_TRUE(ReadFile(file.Get(), block.get(), factor * length, &count, nullptr));
            ASSERT_EQ(count, expected);
            ASSERT_EQ(std::memcmp(block.get(), content_.data() + position, expected), 0) << position;
            position += expected;
        }
    }
}

TEST_F(LinuxReadAhead, FailureAheadIsForgottenUntilTheProgramMeetsIt) {
    MakeFileToRead(6);
    const ScopedHostCalls scope;
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    TheOtherThreads().FailReadAfter = 1;
    TheOtherThreads().TransferError = EIO;
    for (int read = 0; read < 5; read++) {
        Read(file);
    }
    EXPECT_EQ(TheOtherThreads().ReadTo, 3 * length);
    TheHostCalls().FailTransferAfter = 0;
    TheHostCalls().TransferError = ENODATA;
    DWORD count = 99;
    EXPECT_EQ(ErrorOf(ReadFile(file.Get(), buffer_.data(), length, &count, nullptr)), ERROR_CRC);
    EXPECT_EQ(count, 0u);
    Read(file);
}

TEST_F(LinuxReadAhead, CloseWaitsForWhatIsBeingRead) {
    MakeFileToRead(6);
    const ScopedHostCalls scope;
    TheOtherThreads().AreHeld = true;
    ScopedHandle file(Open(L"file", GENERIC_READ, 0, OPEN_EXISTING));
    Read(file);
    Read(file);
    ExpectCloseToWait(file);
    EXPECT_LE(TheOtherThreads().ReadTo, 3 * length);
    const ScopedHandle again(Open(L"file", GENERIC_READ, 0, OPEN_EXISTING));
    EXPECT_TRUE(again.IsOpen()) << "still held after the close, error " << GetLastError();
}

TEST_F(LinuxReadAhead, ClosedFileLeavesNoMemoryBehind) {
    MakeFileToRead(3);
    size_t before = 0;
    for (int time = 0; time < 3; time++) {
        {
            const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
            for (int i = 0; i < 3; i++) {
                Read(file);
            }
        }
        const size_t used = mallinfo2().hblkhd + mallinfo2().uordblks;
        EXPECT_LT(used, time == 0 ? SIZE_MAX : before + length / 2);
        before = used;
    }
}

TEST_F(LinuxReadAhead, MoreFilesThanItServesAreReadAllTheSame) {
    MakeFileToRead(3);
    const ScopedHostCalls scope;
    const auto countThreads = [] {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::distance(begin(threads), end(threads));
    };
    const auto threadsBefore = countThreads();
    std::vector<std::unique_ptr<ScopedHandle>> files(20);
    for (auto& file : files) {
        file = std::make_unique<ScopedHandle>(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    }
    for (int read = 0; read < 3; read++) {
        for (const auto& file : files) {
            Read(*file);
        }
    }
    EXPECT_EQ(countThreads() - threadsBefore, 8);
}

TEST_F(LinuxReadAhead, FileThatShrinksMeanwhileEndsWhereItEnds) {
    MakeFileToRead(6);
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    const ScopedHostCalls scope;
    Read(file);
    Read(file);
    ASSERT_TRUE(ReachesWithin(TheOtherThreads().ReadTo, 3 * length, patience));
    std::filesystem::resize_file(Folder() / "file", 2 * length + 5);
    DWORD count = 0;
    ASSERT_TRUE(ReadFile(file.Get(), buffer_.data(), length, &count, nullptr));
    EXPECT_EQ(count, 5u);
    ASSERT_TRUE(ReadFile(file.Get(), buffer_.data(), length, &count, nullptr));
    EXPECT_EQ(count, 0u);
}

// ---------------------------------------------------------------------------------------------------------------
// Writing behind

constexpr DWORD block = DWORD{1} << 20;

// Lets held transfers of other threads go on a little later, from a thread of its own.
class LaterRelease {
public:
    LaterRelease()
        : thread_([this] {
              std::this_thread::sleep_for(std::chrono::milliseconds(100));
              isReleased_ = true;
              TheOtherThreads().AreHeld = false;
          }) {}
    ~LaterRelease() { thread_.join(); }
    LaterRelease(const LaterRelease&) = delete;
    LaterRelease& operator=(const LaterRelease&) = delete;
    bool IsReleased() const { return isReleased_; }

private:
    std::atomic<bool> isReleased_ = false;
    std::thread thread_;
};

// A file or a disk that is written in sequence, block by block of which each is filled with its number.
class SequentialWriter {
public:
    explicit SequentialWriter(HANDLE handle) : handle_(handle) {}

    BOOL Write(DWORD length = block) {
        std::vector<char> bytes(length + 1, static_cast<char>('a' + count_));
        count_++;
        DWORD written = 99;
        const BOOL isWritten = WriteFile(handle_, bytes.data() + 1, length, &written, nullptr);
        const DWORD error = GetLastError();
        // The memory is the program's own again.
        std::fill(bytes.begin(), bytes.end(), '!');
        EXPECT_EQ(written, isWritten ? length : 0u);
        SetLastError(error);
        return isWritten;
    }

private:
    HANDLE handle_;
    int count_ = 0;
};

// The first letters of the blocks of what lies at the path.
std::string BlocksAt(const std::string& path) {
    std::string letters;
    std::ifstream file(path, std::ios::binary);
    std::string bytes(block, '\0');
    while (file.read(bytes.data(), block)) {
        letters += bytes == std::string(block, bytes[0]) ? bytes[0] : '?';
    }
    return letters;
}

class LinuxWriteBehind : public LinuxFiles {
protected:
    HANDLE Create(const std::wstring& name = L"file") const { return Open(name, readWrite, 0, CREATE_NEW); }
    std::string Blocks(const std::string& name = "file") const { return BlocksAt(NarrowPath(name)); }
};

using LinuxWriteBehindDeathTest = LinuxWriteBehind;

TEST_F(LinuxWriteBehind, WritesInSequenceAreDoneAndSentByAnotherThread) {
    constexpr DWORD length = DWORD{4} << 20;
    const ScopedHostCalls scope;
    ScopedHandle file(Create());
    SequentialWriter writer(file.Get());
    for (int i = 0; i < 4; i++) {
        ASSERT_TRUE(writer.Write(length));
    }
    EXPECT_TRUE(ReachesWithin(TheOtherThreads().SentTo, 4 * uint64_t{length}, patience));
    EXPECT_EQ(TheOtherThreads().WrittenTo, 4 * uint64_t{length});
    EXPECT_TRUE(TheHostCalls().Order.empty());
    TheOtherThreads().AreHeld = true;
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(writer.Write(length));
    }
    ExpectCloseToWait(file);
    EXPECT_EQ(TheHostCalls().Order, (std::vector<std::string>{"sync file", "sync folder", "drop"}));
    EXPECT_EQ(Blocks(), "aaaabbbbccccddddeeeeffff");
}

TEST_F(LinuxWriteBehind, ShortWritesInSequenceAreSentByAnotherThread) {
    const ScopedHostCalls scope;
    const ScopedHandle file(Create());
    SequentialWriter writer(file.Get());
    for (int i = 0; i < 512; i++) {
        ASSERT_TRUE(writer.Write(32768));
    }
    EXPECT_TRUE(ReachesWithin(TheOtherThreads().SentTo, 16 << 20, patience));
    EXPECT_EQ(TheOtherThreads().WrittenTo, 0u);
}

TEST_F(LinuxWriteBehind, TwoAreUnderWayAndTheNextWaits) {
    const ScopedHostCalls scope;
    {
        const ScopedHandle file(Create());
        SequentialWriter writer(file.Get());
        ASSERT_TRUE(writer.Write());
        TheOtherThreads().AreHeld = true;
        ASSERT_TRUE(writer.Write());
        ASSERT_TRUE(writer.Write());
        EXPECT_EQ(TheOtherThreads().WrittenTo, 0u);
        const LaterRelease release;
        ASSERT_TRUE(writer.Write());
        EXPECT_TRUE(release.IsReleased());
    }
    EXPECT_EQ(Blocks(), "abcd");
}

TEST_F(LinuxWriteBehind, WhoLooksAtTheFileWaits) {
    const ScopedHostCalls scope;
    const ScopedHandle file(Create());
    SequentialWriter writer(file.Get());
    ASSERT_TRUE(writer.Write());
    std::vector<char> back(block);
    DWORD count = 0;
    LARGE_INTEGER size{};
    for (int look = 0; look < 4; look++) {
        TheOtherThreads().AreHeld = true;
        ASSERT_TRUE(writer.Write());
        const auto end = LONGLONG{look + 2} * block;
        const LaterRelease release;
        switch (look) {
        case 0:
            ASSERT_TRUE(GetFileSizeEx(file.Get(), &size));
            EXPECT_EQ(size.QuadPart, end);
            break;
        case 1:
            ASSERT_TRUE(SetFilePointerEx(file.Get(), LargeInteger(0), &size, FILE_END));
            EXPECT_EQ(size.QuadPart, end);
            break;
        case 2:
            ASSERT_TRUE(Seek(file.Get(), end - block));
            ASSERT_TRUE(ReadFile(file.Get(), back.data(), block, &count, nullptr));
            EXPECT_EQ(count, block);
            EXPECT_EQ(std::string(back.begin(), back.end()), std::string(block, 'd'));
            break;
        default:
            // A write elsewhere is done when it comes back, behind those in front of it.
            ASSERT_TRUE(Seek(file.Get(), end - 1));
            ASSERT_TRUE(WriteFile(file.Get(), "!", 1, &count, nullptr));
            EXPECT_EQ(Blocks(), "abcd?");
            break;
        }
        EXPECT_TRUE(release.IsReleased()) << look;
    }
}

TEST_F(LinuxWriteBehind, HeaderThatIsWrittenLastIsWrittenBehindTheRest) {
    const ScopedHostCalls scope;
    {
        const ScopedHandle file(Create());
        SequentialWriter writer(file.Get());
        ASSERT_TRUE(Seek(file.Get(), block));
        for (int i = 0; i < 5; i++) {
            ASSERT_TRUE(writer.Write());
        }
        ASSERT_TRUE(Seek(file.Get(), 0));
        ASSERT_TRUE(writer.Write());
    }
    EXPECT_EQ(Blocks(), "fabcde");
    EXPECT_EQ(TheHostCalls().Order, (std::vector<std::string>{"allocate", "sync file", "sync folder", "drop"}));
}

TEST_F(LinuxWriteBehind, WithoutAThreadOrMemoryTheProgramWritesAndReadsItself) {
    for (const bool isThread : {true, false}) {
        const ScopedHostCalls scope;
        (isThread ? TheOtherThreads().CanBeMade : TheOtherThreads().HaveMemory) = false;
        const std::wstring name = isThread ? L"threads" : L"memory";
        {
            const ScopedHandle file(Create(name));
            SequentialWriter writer(file.Get());
            for (int i = 0; i < 4; i++) {
                ASSERT_TRUE(writer.Write());
            }
            ASSERT_TRUE(Seek(file.Get(), 0));
            std::vector<char> back(block);
            for (int i = 0; i < 4; i++) {
                DWORD count = 0;
                ASSERT_TRUE(ReadFile(file.Get(), back.data(), block, &count, nullptr));
                EXPECT_EQ(std::string(back.data(), count), std::string(block, static_cast<char>('a' + i)));
            }
        }
        EXPECT_EQ(Blocks(isThread ? "threads" : "memory"), "abcd");
        EXPECT_EQ(TheOtherThreads().WrittenTo, 0u);
        EXPECT_EQ(TheOtherThreads().ReadTo, 0u);
    }
}

TEST_F(LinuxWriteBehind, NothingGoesOnBesideAMachineThatIsDescribed) {
    EXPECT_EQ(InChild([this] {
                  vornix::platform::KeepTransfersSynchronous();
                  const ScopedHostCalls scope;
                  const ScopedHandle file(Create());
                  SequentialWriter writer(file.Get());
                  for (int i = 0; i < 12; i++) {
                      if (!writer.Write()) {
                          return 1;
                      }
                  }
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
                  return TheOtherThreads().WrittenTo == 0 && TheOtherThreads().SentTo == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(LinuxWriteBehind, CopyOfTheProcessLeavesToTheOtherWhatIsUnderWayThere) {
    const ScopedHostCalls scope;
    {
        const ScopedHandle file(Create());
        SequentialWriter writer(file.Get());
        ASSERT_TRUE(writer.Write());
        TheOtherThreads().AreHeld = true;
        ASSERT_TRUE(writer.Write());
        ASSERT_TRUE(writer.Write());
        EXPECT_EQ(InChild([&] {
                      TheOtherThreads().AreHeld = false;
                      LARGE_INTEGER size{};
                      return GetFileSizeEx(file.Get(), &size) && size.QuadPart == block && CloseHandle(file.Get()) ? 0
                                                                                                                   : 1;
                  }),
                  0);
        TheOtherThreads().AreHeld = false;
    }
    EXPECT_EQ(Blocks(), "abc");
}

TEST_F(LinuxWriteBehindDeathTest, ExitInTheMiddleWaitsForWhatTheProgramTookForWritten) {
    const auto run = [this] {
        const HANDLE file = Create();
        SequentialWriter writer(file);
        (void)writer.Write();
        TheOtherThreads().AreHeld = true;
        (void)writer.Write();
        (void)writer.Write();
        std::thread([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            TheOtherThreads().AreHeld = false;
        }).detach();
        std::exit(7);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(7), "^$");
    EXPECT_EQ(Blocks(), "abc");
}

TEST_F(LinuxWriteBehindDeathTest, ExitWaitsForNothingBehindAFailedWrite) {
    const auto run = [this] {
        const HANDLE file = Create();
        SequentialWriter writer(file);
        (void)writer.Write();
        TheOtherThreads().TransferError = ENOSPC;
        TheOtherThreads().FailWriteAfter = 0;
        (void)writer.Write();
        (void)writer.Write();
        std::exit(7);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(7), "^$");
    EXPECT_EQ(Blocks(), "a");
}

TEST_F(LinuxWriteBehindDeathTest, FailureIsToldByEachCallThatCanFailAndNothingIsWrittenBehindIt) {
    const auto run = [this](int failing, int asking) {
        const HANDLE file = Create();
        SequentialWriter writer(file);
        TheOtherThreads().TransferError = ENOSPC;
        TheOtherThreads().FailWriteAfter = failing;
        bool isWritten = true;
        for (int i = 0; i < 8 && asking == 0; i++) {
            const bool now = writer.Write();
            if (now && !isWritten) {
                _exit(2);
            }
            if (!now && GetLastError() != ERROR_DISK_FULL) {
                _exit(3);
            }
            isWritten = now;
        }
        if (asking == 0 && isWritten) {
            _exit(4);
        }
        TheOtherThreads().FailWriteAfter = asking == 0 ? -1 : failing;
        for (int i = 0; i < 2 && asking != 0; i++) {
            if (!writer.Write()) {
                _exit(5);
            }
        }
        LARGE_INTEGER size{};
        char byte = 0;
        DWORD count = 99;
        for (int time = 0; time < 2; time++) {
            SetLastError(0);
            const BOOL isTold = asking == 1   ? GetFileSizeEx(file, &size)
                                : asking == 2 ? SetFilePointerEx(file, LargeInteger(0), nullptr, FILE_END)
                                : asking == 3 ? ReadFile(file, &byte, 1, &count, nullptr)
                                              : WriteFile(file, "x", 1, &count, nullptr);
            if (isTold || GetLastError() != ERROR_DISK_FULL) {
                _exit(6);
            }
        }
        // Neither the writes behind the failed one, nor anything later.
        if (std::filesystem::file_size(Folder() / "file") != uint64_t(failing + 1) * block) {
            _exit(7);
        }
        (void)CloseHandle(file);
    };
    for (int failing = 0; failing < 4; failing++) {
        EXPECT_EXIT(run(failing, 0), testing::ExitedWithCode(1), MediumReport(NarrowPath("file"), ERROR_DISK_FULL));
        std::filesystem::remove(Folder() / "file");
    }
    for (int asking = 1; asking < 5; asking++) {
        EXPECT_EXIT(run(0, asking), testing::ExitedWithCode(1), MediumReport(NarrowPath("file"), ERROR_DISK_FULL))
            << asking;
        std::filesystem::remove(Folder() / "file");
    }
}

TEST_F(LinuxWriteBehindDeathTest, WhatWaitsBehindAFailedWriteIsNotWritten) {
    const auto run = [this] {
        const HANDLE file = Create();
        SequentialWriter writer(file);
        TheOtherThreads().TransferError = ENOSPC;
        TheOtherThreads().FailWriteAfter = 0;
        (void)writer.Write();
        TheOtherThreads().AreHeld = true;
        if (!writer.Write() || !writer.Write()) {
            _exit(2);
        }
        TheOtherThreads().AreHeld = false;
        LARGE_INTEGER size{};
        if (GetFileSizeEx(file, &size) || GetLastError() != ERROR_DISK_FULL) {
            _exit(3);
        }
        if (std::filesystem::file_size(Folder() / "file") != block) {
            _exit(4);
        }
        (void)CloseHandle(file);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(1), MediumReport(NarrowPath("file"), ERROR_DISK_FULL));
}

TEST_F(LinuxWriteBehindDeathTest, FailureThatNoCallCanTellEndsTheProcessAtTheClose) {
    const auto run = [this] {
        const HANDLE file = Create();
        SequentialWriter writer(file);
        TheOtherThreads().TransferError = EIO;
        TheOtherThreads().FailWriteAfter = 1;
        TheOtherThreads().AreHeld = true;
        if (!writer.Write() || !writer.Write() || !writer.Write()) {
            _exit(2);
        }
        std::thread([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            TheOtherThreads().AreHeld = false;
        }).detach();
        (void)CloseHandle(file);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(1), MediumReport(NarrowPath("file"), ERROR_CRC));
}

// ---------------------------------------------------------------------------------------------------------------
// Disks

class LinuxOverlappedDisks : public LinuxWriteBehind {
protected:
    void SetUp() override {
        LinuxWriteBehind::SetUp();
        if (!TheLoopDisks().WhyNone.empty()) {
            GTEST_SKIP() << TheLoopDisks().WhyNone;
        }
        ASSERT_GE(TheLoopDisks().Small.Number, 0);
        ASSERT_GE(TheLoopDisks().Large.Number, 0);
    }
    static const LoopDisk& Small() { return TheLoopDisks().Small; }
    static const LoopDisk& Large() { return TheLoopDisks().Large; }
    static HANDLE OpenDisk(const LoopDisk& disk, DWORD flags = FILE_FLAG_NO_BUFFERING) {
        return OpenNumber(disk.Number, readWrite, 0, flags);
    }
    static BOOL Read(HANDLE disk, uint64_t offset, DWORD length, char& first) {
        std::vector<char> bytes(length);
        DWORD count = 0;
        const BOOL isRead = Seek(disk, offset) && ReadFile(disk, bytes.data(), length, &count, nullptr);
        first = bytes[0];
        return isRead && count == length;
    }
};

using LinuxOverlappedDisksDeathTest = LinuxOverlappedDisks;

TEST_F(LinuxOverlappedDisks, ReadInSequenceIsOneTransferAheadUpToTheEnd) {
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        const ScopedHostCalls scope;
        const ScopedHandle handle(OpenDisk(*disk));
        char first = 0;
        ASSERT_TRUE(Read(handle.Get(), 0, block, first));
        EXPECT_EQ(TheOtherThreads().ReadTo, 0u);
        for (uint64_t offset = block; offset < disk->Length; offset += block) {
            const auto length = static_cast<DWORD>(std::min<uint64_t>(block, disk->Length - offset));
            ASSERT_TRUE(Read(handle.Get(), offset, length, first));
            const uint64_t ahead = length < block ? disk->Length : std::min(offset + 2 * block, disk->Length);
            EXPECT_TRUE(ReachesWithin(TheOtherThreads().ReadTo, ahead, patience));
            EXPECT_EQ(TheOtherThreads().ReadTo, ahead);
        }
    }
}

TEST_F(LinuxOverlappedDisks, WhatWasReadAheadIsThrownAwayWhereTheDiskIsWritten) {
    const ScopedHostCalls scope;
    const ScopedHandle handle(OpenDisk(Small()));
    SequentialWriter writer(handle.Get());
    char first = 0;
    ASSERT_TRUE(Read(handle.Get(), 0, block, first));
    ASSERT_TRUE(Read(handle.Get(), block, block, first));
    ASSERT_TRUE(ReachesWithin(TheOtherThreads().ReadTo, 3 * block, patience));
    ASSERT_TRUE(Seek(handle.Get(), 2 * block));
    ASSERT_TRUE(writer.Write());
    ASSERT_TRUE(Read(handle.Get(), 2 * block, block, first));
    EXPECT_EQ(first, 'a');
}

TEST_F(LinuxOverlappedDisks, WrittenBehindAreFlushedBeforeTheDiskIsReadAndClosed) {
    using Names = std::vector<std::string>;
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        const ScopedHostCalls scope;
        ScopedHandle handle(OpenDisk(*disk));
        SequentialWriter writer(handle.Get());
        for (int i = 0; i < 3; i++) {
            // With gaps, as where nothing but zeros would be written.
            ASSERT_TRUE(Seek(handle.Get(), 2 * static_cast<uint64_t>(i) * block));
            ASSERT_TRUE(writer.Write());
        }
        EXPECT_TRUE(ReachesWithin(TheOtherThreads().WrittenTo, 5 * block, patience));
        EXPECT_EQ(TheHostCalls().Order, Names{});
        TheOtherThreads().AreHeld = true;
        ASSERT_TRUE(Seek(handle.Get(), 6 * block));
        ASSERT_TRUE(writer.Write());
        {
            const LaterRelease release;
            char first = 0;
            ASSERT_TRUE(Read(handle.Get(), 6 * block, block, first));
            EXPECT_TRUE(release.IsReleased());
            EXPECT_EQ(first, 'd');
        }
        EXPECT_EQ(TheHostCalls().Order, Names{"sync disk"});
        ASSERT_TRUE(Seek(handle.Get(), 7 * block));
        TheOtherThreads().AreHeld = true;
        ASSERT_TRUE(writer.Write());
        ASSERT_TRUE(writer.Write());
        ExpectCloseToWait(handle);
        EXPECT_EQ(TheHostCalls().Order, (Names{"sync disk", "sync disk"}));
        const std::string blocks = BlocksAt(disk->File);
        EXPECT_EQ((std::string{blocks[0], blocks[2], blocks[4]} + blocks.substr(6, 3)), "abcdef");
        EXPECT_EQ(TheOtherThreads().SentTo, 0u);
    }
}

TEST_F(LinuxOverlappedDisksDeathTest, FailureIsToldByEachCallAndEndsTheProcessAtTheClose) {
    const auto run = [](int asking) {
        const HANDLE handle = OpenDisk(Small());
        SequentialWriter writer(handle);
        TheOtherThreads().TransferError = EREMOTEIO;
        TheOtherThreads().FailWriteAfter = 0;
        if (!writer.Write() || !writer.Write()) {
            _exit(2);
        }
        char first = 0;
        for (int time = 0; time < 2 && asking != 0; time++) {
            SetLastError(0);
            const BOOL isTold = asking == 1   ? Read(handle, 0, block, first)
                                : asking == 2 ? UpdateProperties(handle)
                                : asking == 3 ? writer.Write(512)
                                              : writer.Write() && writer.Write() && writer.Write() && writer.Write();
            if (isTold || GetLastError() != ERROR_IO_DEVICE) {
                _exit(3);
            }
        }
        (void)CloseHandle(handle);
    };
    const std::string disk = "PhysicalDrive" + std::to_string(Small().Number) + " \\(/dev/" + Small().Name + "\\)";
    for (int asking = 0; asking < 5; asking++) {
        EXPECT_EXIT(run(asking), testing::ExitedWithCode(1), MediumReport(disk, ERROR_IO_DEVICE)) << asking;
    }
}

TEST_F(LinuxOverlappedDisksDeathTest, DiskThatEndsInFrontOfWhatIsWrittenBehindSaysWhatIsWrong) {
    const auto run = [] {
        const HANDLE handle = OpenDisk(Small());
        SequentialWriter writer(handle);
        // What a device says that has become shorter.
        TheOtherThreads().TransferError = ENOSPC;
        TheOtherThreads().FailWriteAfter = 0;
        if (!writer.Write() || !writer.Write()) {
            _exit(2);
        }
        char first = 0;
        _exit(!Read(handle, 0, block, first) && GetLastError() == ERROR_SECTOR_NOT_FOUND ? 0 : 3);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------------------------------------------------------
// Against a model

// Transfers of any kind in any order, and the same on bytes in memory.
class Model {
public:
    Model(HANDLE handle, uint64_t sector, uint64_t limit, std::string bytes, unsigned seed)
        : handle_(handle), sector_(sector), limit_(limit), bytes_(std::move(bytes)), generator_(seed) {}

    void Step() {
        const unsigned kind = Number(16);
        if (kind < 3) {
            position_ = Number(kind == 0 ? 2 : static_cast<unsigned>(limit_ / sector_)) * sector_;
            ASSERT_TRUE(Seek(handle_, position_));
            return;
        }
        if (kind < 5) {
            isWriting_ = !isWriting_;
        }
        if (kind < 8) {
            // Stays so for a while, so that there are sequences.
            length_ = Number(3) == 0 ? (1 + Number(64)) * sector_
                                     : (65536 / sector_ + Number(static_cast<unsigned>(262144 / sector_))) * sector_;
        }
        const uint64_t length = std::min(length_, position_ < limit_ ? limit_ - position_ : 0);
        if (length == 0) {
            position_ = 0;
            ASSERT_TRUE(Seek(handle_, 0));
            return;
        }
        std::vector<char> memory(length + 1);
        char* const bytes = memory.data() + Number(2);
        DWORD count = 0;
        if (isWriting_) {
            std::fill_n(bytes, length, static_cast<char>(generator_()));
            bytes_.resize(std::max<size_t>(bytes_.size(), position_ + length));
            std::copy_n(bytes, length, bytes_.begin() + static_cast<ptrdiff_t>(position_));
            ASSERT_TRUE(WriteFile(handle_, bytes, static_cast<DWORD>(length), &count, nullptr)) << GetLastError();
            ASSERT_EQ(count, length);
        } else {
            ASSERT_TRUE(ReadFile(handle_, bytes, static_cast<DWORD>(length), &count, nullptr)) << GetLastError();
            const uint64_t left = position_ < bytes_.size() ? bytes_.size() - position_ : 0;
            ASSERT_EQ(count, std::min(length, left));
            ASSERT_EQ(std::memcmp(bytes, bytes_.data() + position_, count), 0);
        }
        position_ += count;
    }

    const std::string& Bytes() const { return bytes_; }

private:
    unsigned Number(unsigned limit) { return static_cast<unsigned>(generator_() % limit); }

    HANDLE handle_;
    uint64_t sector_;
    uint64_t limit_;
    std::string bytes_;
    std::mt19937 generator_;
    uint64_t position_ = 0;
    uint64_t length_ = 131072;
    bool isWriting_ = false;
};

std::string WholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(LinuxWriteBehind, FileIsThatOfAModel) {
    for (unsigned seed = 0; seed < 4; seed++) {
        SCOPED_TRACE(seed);
        std::string bytes;
        {
            const ScopedHandle file(Open(L"file", readWrite, 0, CREATE_ALWAYS));
            Model model(file.Get(), 1, 4 << 20, "", seed);
            for (int step = 0; step < 400; step++) {
                ASSERT_NO_FATAL_FAILURE(model.Step());
            }
            bytes = model.Bytes();
        }
        ASSERT_TRUE(WholeFile(NarrowPath("file")) == bytes);
    }
}

TEST_F(LinuxOverlappedDisks, DiskIsThatOfAModel) {
    for (const LoopDisk* disk : {&Small(), &Large()}) {
        for (unsigned seed = 0; seed < 2; seed++) {
            SCOPED_TRACE(disk->Name + " " + std::to_string(seed));
            std::string bytes;
            {
                const ScopedHandle handle(OpenDisk(*disk, seed % 2 == 0 ? FILE_FLAG_NO_BUFFERING : 0));
                Model model(handle.Get(), disk->SectorSize, disk->Length, WholeFile(disk->File), seed);
                for (int step = 0; step < 100; step++) {
                    ASSERT_NO_FATAL_FAILURE(model.Step());
                }
                bytes = model.Bytes();
            }
            ASSERT_TRUE(WholeFile(disk->File) == bytes);
        }
    }
}

} // namespace
