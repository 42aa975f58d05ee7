// The contract of the clock and of the calls of the C runtime.
#include "temporary_folder.h"

#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cerrno>
#include <cstdint>
#include <thread>

namespace {

constexpr DWORD untouched = 0x1234;

class RuntimeContract : public TemporaryFolderTest {
protected:
    void SetUp() override {
        TemporaryFolderTest::SetUp();
        before_ = std::filesystem::current_path();
        std::filesystem::current_path(Folder());
    }
    void TearDown() override {
        std::filesystem::current_path(before_);
        TemporaryFolderTest::TearDown();
    }

    static std::string FullPath(const std::string& path) {
        char buffer[1024];
        const char* const result = _fullpath(buffer, path.c_str(), sizeof buffer);
        return result != nullptr ? result : "(null)";
    }

    // A path below the current folder as the platform spells it.
    static std::string Here(const std::string& name) { return (std::filesystem::current_path() / name).string(); }

private:
    std::filesystem::path before_;
};

TEST(ClockContract, TicksAreMillisecondsThatOnlyGrow) {
    const ULONGLONG start = GetTickCount64();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const ULONGLONG passed = GetTickCount64() - start;
    EXPECT_GE(passed, 180u);
    EXPECT_LT(passed, 60'000u);
}

TEST_F(RuntimeContract, FullPathIsTakenFromTheCurrentFolder) {
    EXPECT_EQ(FullPath("name"), Here("name"));
    EXPECT_EQ(FullPath("./name"), Here("name"));
    EXPECT_EQ(FullPath("none/../name"), Here("name")) << "by the text alone: nothing need exist";
    EXPECT_EQ(FullPath("a/./b//c"), (std::filesystem::current_path() / "a" / "b" / "c").string());
    EXPECT_EQ(FullPath("name/."), Here("name"));
    EXPECT_EQ(FullPath("../name"), (std::filesystem::current_path().parent_path() / "name").string());
    EXPECT_EQ(FullPath("."), std::filesystem::current_path().string());
    EXPECT_EQ(FullPath(""), std::filesystem::current_path().string());
}

TEST_F(RuntimeContract, FullPathOfAnAbsolutePathIsItself) {
    EXPECT_EQ(FullPath(Here("name")), Here("name"));
}

TEST_F(RuntimeContract, FullPathKeepsATrailingSeparator) {
    const std::string separator(1, static_cast<char>(std::filesystem::path::preferred_separator));
    EXPECT_EQ(FullPath("folder/"), Here("folder") + separator);
}

TEST_F(RuntimeContract, FullPathMustFitWithItsTerminator) {
    const std::string expected = Here("name");
    std::vector<char> exact(expected.size() + 1);
    EXPECT_EQ(_fullpath(exact.data(), "name", exact.size()), exact.data());
    EXPECT_EQ(std::string(exact.data()), expected);
    EXPECT_EQ(_fullpath(exact.data(), "name", exact.size() - 1), nullptr);
}

TEST(TextContract, CaseOfAsciiLettersIsIgnored) {
    EXPECT_EQ(_stricmp("--Out", "--oUT"), 0);
    EXPECT_EQ(_stricmp("", ""), 0);
    EXPECT_LT(_stricmp("abc", "ABD"), 0);
    EXPECT_GT(_stricmp("B", "a"), 0);
    EXPECT_LT(_stricmp("ab", "ABC"), 0);
    EXPECT_GT(_stricmp("abc", "AB"), 0);
    // Letters are compared as small ones, so that those between the alphabets come first.
    EXPECT_LT(_stricmp("_", "A"), 0);
    EXPECT_NE(_stricmp("\xC3", "\xE3"), 0);
}

TEST(MemoryContract, BlocksAreAlignedAndUsable) {
    for (const size_t alignment : {size_t{1}, size_t{16}, size_t{64}, size_t{512}, size_t{4096}, size_t{65536}}) {
        auto* const block = static_cast<unsigned char*>(_aligned_malloc(10'000, alignment));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u);
        memset(block, 0xA5, 10'000);
        EXPECT_EQ(block[9'999], 0xA5);
        _aligned_free(block);
    }
    _aligned_free(nullptr);
}

TEST(MemoryContract, AlignmentIsAPowerOfTwo) {
    EXPECT_EQ(_aligned_malloc(4096, 520), nullptr);
    EXPECT_EQ(_aligned_malloc(4096, 3), nullptr);
}

TEST(MemoryContract, NoAlignmentAndNoSizeAreServed) {
    void* block = _aligned_malloc(16, 0);
    EXPECT_NE(block, nullptr);
    _aligned_free(block);
    block = _aligned_malloc(0, 512);
    EXPECT_NE(block, nullptr);
    _aligned_free(block);
}

TEST(MemoryContract, TooLargeABlockIsNotGiven) {
    EXPECT_EQ(_aligned_malloc(SIZE_MAX / 2, 4096), nullptr);
}

TEST_F(RuntimeContract, StreamReadsBytesAsTheyStand) {
    MakeFile(L"file", std::string("a\r\nb\x1A\0c", 7));
    FILE* stream = nullptr;
    ASSERT_EQ(fopen_s(&stream, "file", "rb"), 0);
    ASSERT_NE(stream, nullptr);
    char buffer[16];
    EXPECT_EQ(fread(buffer, 1, sizeof buffer, stream), 7u);
    EXPECT_EQ(std::string(buffer, 7), std::string("a\r\nb\x1A\0c", 7));
    fclose(stream);
}

TEST_F(RuntimeContract, StreamThatCannotBeOpenedSaysWhy) {
    std::filesystem::create_directory(Folder() / "folder");
    FILE* stream = reinterpret_cast<FILE*>(8);
    SetLastError(untouched);
    EXPECT_EQ(fopen_s(&stream, "none", "rb"), ENOENT);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(fopen_s(&stream, "none/none", "rb"), ENOENT);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(fopen_s(&stream, "folder", "rb"), EACCES);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST_F(RuntimeContract, OpenedStreamClearsTheLastError) {
    MakeFile(L"file", "x");
    SetLastError(untouched);
    FILE* stream = nullptr;
    ASSERT_EQ(fopen_s(&stream, "file", "rb"), 0);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    SetLastError(untouched);
    char buffer[16];
    EXPECT_EQ(fread(buffer, 1, sizeof buffer, stream), 1u);
    fclose(stream);
    EXPECT_EQ(GetLastError(), untouched);
}

TEST_F(RuntimeContract, OtherCallsLeaveTheLastErrorAlone) {
    SetLastError(untouched);
    EXPECT_EQ(FullPath("name"), Here("name"));
    EXPECT_EQ(_stricmp("a", "A"), 0);
    _aligned_free(_aligned_malloc(4096, 4096));
    EXPECT_NE(GetTickCount64(), 0u);
    EXPECT_EQ(GetLastError(), untouched);
}

} // namespace
