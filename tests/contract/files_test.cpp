// The contract of the file calls: CreateFileW, ReadFile, WriteFile, SetFilePointerEx, GetFileSizeEx, CloseHandle,
// GetFileAttributesA, MoveFileExW and GetLastError, on ordinary files.
#include "temporary_folder.h"

#include <array>
#include <cstdint>

namespace {

constexpr DWORD untouched = 0x1234;

class FileContract : public TemporaryFolderTest {};

TEST_F(FileContract, CreateNewMakesAnEmptyFile) {
    const ScopedHandle file(Open(L"new", readWrite, 0, CREATE_NEW));
    ASSERT_TRUE(file.IsOpen());
    LARGE_INTEGER size = LargeInteger(-1);
    EXPECT_TRUE(GetFileSizeEx(file.Get(), &size));
    EXPECT_EQ(size.QuadPart, 0);
}

TEST_F(FileContract, CreateNewRefusesAnExistingFileAndLeavesItAlone) {
    MakeFile(L"there", "content");
    EXPECT_EQ(ErrorOf(Open(L"there", GENERIC_WRITE, 0, CREATE_NEW)), ERROR_FILE_EXISTS);
    EXPECT_EQ(ContentOf(L"there"), "content");
}

TEST_F(FileContract, CreateAlwaysTellsWhetherTheFileWasThere) {
    SetLastError(untouched);
    {
        const ScopedHandle file(Open(L"file", GENERIC_WRITE, 0, CREATE_ALWAYS));
        ASSERT_TRUE(file.IsOpen());
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(file.Get(), "old", 3, &written, nullptr));
    }
    SetLastError(untouched);
    const ScopedHandle file(Open(L"file", readWrite, 0, CREATE_ALWAYS));
    ASSERT_TRUE(file.IsOpen());
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    LARGE_INTEGER size = LargeInteger(-1);
    EXPECT_TRUE(GetFileSizeEx(file.Get(), &size));
    EXPECT_EQ(size.QuadPart, 0);
}

TEST_F(FileContract, OtherSuccessfulOpensClearTheLastError) {
    MakeFile(L"file", "x");
    SetLastError(untouched);
    const ScopedHandle existing(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING));
    ASSERT_TRUE(existing.IsOpen());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    SetLastError(untouched);
    const ScopedHandle fresh(Open(L"fresh", GENERIC_WRITE, 0, CREATE_NEW));
    ASSERT_TRUE(fresh.IsOpen());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
}

TEST_F(FileContract, OpenNamesWhatIsMissing) {
    EXPECT_EQ(ErrorOf(Open(L"none", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ErrorOf(Open(L"none/none", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOf(Open(L"none/none", GENERIC_WRITE, 0, CREATE_ALWAYS)), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOf(Open(L"none/none", GENERIC_WRITE, 0, CREATE_NEW)), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOf(CreateFileW(L"", GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)),
              ERROR_PATH_NOT_FOUND);
}

TEST_F(FileContract, FileInTheMiddleOfAPathIsAMissingFolder) {
    MakeFile(L"file", "x");
    EXPECT_EQ(ErrorOf(Open(L"file/name", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_PATH_NOT_FOUND);
}

TEST_F(FileContract, SeparatorEndsNoFileName) {
    MakeFile(L"file", "x");
    EXPECT_EQ(ErrorOf(Open(L"file/", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_INVALID_NAME);
    EXPECT_EQ(ErrorOf(Open(L"new/", GENERIC_WRITE, 0, CREATE_NEW)), ERROR_INVALID_NAME);
}

TEST_F(FileContract, FolderIsNotOpened) {
    std::filesystem::create_directory(Folder() / "folder");
    EXPECT_EQ(ErrorOf(Open(L"folder", GENERIC_READ, shareAll, OPEN_EXISTING)), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ErrorOf(Open(L"folder", GENERIC_WRITE, 0, CREATE_ALWAYS)), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ErrorOf(Open(L"folder", GENERIC_WRITE, 0, CREATE_NEW)), ERROR_FILE_EXISTS);
}

TEST_F(FileContract, UnitsOfAPathAreUtf16) {
    // A character outside ASCII, and one outside the first plane.
    const std::wstring pair = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDCBE)};
    const std::wstring name = L"a\u00E9" + pair;
    MakeFile(name, "x");
    EXPECT_TRUE(std::filesystem::exists(Folder() / std::filesystem::path(u"a\u00E9\U0001F4BE")));
}

TEST_F(FileContract, ReadStopsAtTheEndOfTheFile) {
    MakeFile(L"file", "0123456789");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    std::array<char, 64> buffer{};
    DWORD read = 99;
    EXPECT_TRUE(ReadFile(file.Get(), buffer.data(), 4, &read, nullptr));
    EXPECT_EQ(read, 4u);
    EXPECT_TRUE(ReadFile(file.Get(), buffer.data() + 4, 60, &read, nullptr));
    EXPECT_EQ(read, 6u);
    EXPECT_EQ(std::string(buffer.data(), 10), "0123456789");
    SetLastError(untouched);
    EXPECT_TRUE(ReadFile(file.Get(), buffer.data(), 64, &read, nullptr));
    EXPECT_EQ(read, 0u);
    EXPECT_EQ(GetLastError(), untouched);
}

TEST_F(FileContract, TransferOfNothingSucceeds) {
    const ScopedHandle file(Open(L"file", readWrite, 0, CREATE_NEW));
    DWORD count = 99;
    EXPECT_TRUE(WriteFile(file.Get(), "", 0, &count, nullptr));
    EXPECT_EQ(count, 0u);
    count = 99;
    char byte = 0;
    EXPECT_TRUE(ReadFile(file.Get(), &byte, 0, &count, nullptr));
    EXPECT_EQ(count, 0u);
}

TEST_F(FileContract, TransferWithoutItsAccessIsDenied) {
    MakeFile(L"file", "x");
    DWORD count = 99;
    char byte = 0;
    {
        const ScopedHandle file(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING));
        EXPECT_EQ(ErrorOf(WriteFile(file.Get(), "y", 1, &count, nullptr)), ERROR_ACCESS_DENIED);
        EXPECT_EQ(count, 0u);
    }
    const ScopedHandle file(Open(L"file", GENERIC_WRITE, shareAll, OPEN_EXISTING));
    EXPECT_EQ(ErrorOf(ReadFile(file.Get(), &byte, 1, &count, nullptr)), ERROR_ACCESS_DENIED);
    EXPECT_EQ(count, 0u);
}

TEST_F(FileContract, PointerMovesFromEachOrigin) {
    MakeFile(L"file", "0123456789");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    LARGE_INTEGER position = LargeInteger(-1);
    EXPECT_TRUE(SetFilePointerEx(file.Get(), LargeInteger(7), &position, FILE_BEGIN));
    EXPECT_EQ(position.QuadPart, 7);
    EXPECT_TRUE(SetFilePointerEx(file.Get(), LargeInteger(-2), &position, FILE_CURRENT));
    EXPECT_EQ(position.QuadPart, 5);
    char byte = 0;
    DWORD read = 0;
    EXPECT_TRUE(ReadFile(file.Get(), &byte, 1, &read, nullptr));
    EXPECT_EQ(byte, '5');
    EXPECT_TRUE(SetFilePointerEx(file.Get(), LargeInteger(-1), &position, FILE_END));
    EXPECT_EQ(position.QuadPart, 9);
    EXPECT_TRUE(Seek(file.Get(), 3));
    EXPECT_TRUE(ReadFile(file.Get(), &byte, 1, &read, nullptr));
    EXPECT_EQ(byte, '3');
}

TEST_F(FileContract, PointerCannotPrecedeTheFile) {
    MakeFile(L"file", "0123456789");
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    EXPECT_TRUE(Seek(file.Get(), 4));
    EXPECT_EQ(ErrorOf(SetFilePointerEx(file.Get(), LargeInteger(-5), nullptr, FILE_CURRENT)), ERROR_NEGATIVE_SEEK);
    char byte = 0;
    DWORD read = 0;
    EXPECT_TRUE(ReadFile(file.Get(), &byte, 1, &read, nullptr));
    EXPECT_EQ(byte, '4') << "a refused move leaves the pointer where it was";
}

TEST_F(FileContract, WriteBehindTheEndLeavesZerosBetween) {
    const ScopedHandle file(Open(L"file", readWrite, 0, CREATE_NEW));
    constexpr long long start = 5'000'000'000; // more than 32 bits hold
    DWORD count = 0;
    EXPECT_TRUE(Seek(file.Get(), start));
    LARGE_INTEGER size = LargeInteger(-1);
    EXPECT_TRUE(GetFileSizeEx(file.Get(), &size));
    EXPECT_EQ(size.QuadPart, 0) << "moving the pointer alone does not lengthen the file";
    EXPECT_TRUE(WriteFile(file.Get(), "end", 3, &count, nullptr));
    EXPECT_EQ(count, 3u);
    EXPECT_TRUE(GetFileSizeEx(file.Get(), &size));
    EXPECT_EQ(size.QuadPart, start + 3);

    std::array<char, 8> buffer{};
    buffer.fill('?');
    EXPECT_TRUE(Seek(file.Get(), start - 4));
    EXPECT_TRUE(ReadFile(file.Get(), buffer.data(), 8, &count, nullptr));
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(std::string(buffer.data(), 7), std::string("\0\0\0\0end", 7));
}

TEST_F(FileContract, SequentialRunsOfManyTransfersKeepEveryByte) {
    // Long enough for reading ahead and writing behind to set in, with a jump in the middle of each.
    constexpr DWORD stretch = 1 << 20;
    constexpr unsigned stretches = 40;
    std::vector<unsigned char> buffer(stretch);
    const auto fill = [&buffer](unsigned index) {
        uint32_t state = index * 2654435761u + 1;
        for (unsigned char& byte : buffer) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<unsigned char>(state >> 24);
        }
    };
    DWORD count = 0;
    {
        const ScopedHandle file(Open(L"file", GENERIC_WRITE, 0, CREATE_NEW));
        EXPECT_TRUE(Seek(file.Get(), stretch));
        for (unsigned i = 1; i < stretches; i++) {
            fill(i);
            ASSERT_TRUE(WriteFile(file.Get(), buffer.data(), stretch, &count, nullptr));
            ASSERT_EQ(count, stretch);
        }
        fill(0);
        EXPECT_TRUE(Seek(file.Get(), 0));
        ASSERT_TRUE(WriteFile(file.Get(), buffer.data(), stretch, &count, nullptr));
    }
    const ScopedHandle file(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    std::vector<unsigned char> read(stretch);
    for (unsigned i = 0; i < stretches; i++) {
        fill(i);
        ASSERT_TRUE(ReadFile(file.Get(), read.data(), stretch, &count, nullptr));
        ASSERT_EQ(count, stretch);
        ASSERT_EQ(read, buffer) << "stretch " << i;
    }
    EXPECT_TRUE(Seek(file.Get(), 7LL * stretch));
    fill(7);
    ASSERT_TRUE(ReadFile(file.Get(), read.data(), stretch, &count, nullptr));
    EXPECT_EQ(read, buffer);
}

TEST_F(FileContract, SuccessfulCallsLeaveTheLastErrorAlone) {
    MakeFile(L"file", "0123456789");
    ScopedHandle file(Open(L"file", readWrite, 0, OPEN_EXISTING));
    ASSERT_TRUE(file.IsOpen());
    SetLastError(untouched);
    std::array<char, 4> buffer{};
    DWORD count = 0;
    LARGE_INTEGER size;
    EXPECT_TRUE(ReadFile(file.Get(), buffer.data(), 4, &count, nullptr));
    EXPECT_TRUE(Seek(file.Get(), 0));
    EXPECT_TRUE(WriteFile(file.Get(), "abcd", 4, &count, nullptr));
    EXPECT_TRUE(GetFileSizeEx(file.Get(), &size));
    file.Close();
    EXPECT_NE(AttributesOf("file"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), untouched);
}

TEST_F(FileContract, ClosedHandleIsInvalid) {
    const HANDLE file = Open(L"file", readWrite, 0, CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
    char byte = 0;
    DWORD count = 0;
    LARGE_INTEGER size;
    SetLastError(untouched);
    EXPECT_EQ(ErrorOf(CloseHandle(file)), ERROR_INVALID_HANDLE);
    SetLastError(untouched);
    EXPECT_EQ(ErrorOf(ReadFile(file, &byte, 1, &count, nullptr)), ERROR_INVALID_HANDLE);
    SetLastError(untouched);
    EXPECT_EQ(ErrorOf(WriteFile(file, &byte, 1, &count, nullptr)), ERROR_INVALID_HANDLE);
    SetLastError(untouched);
    EXPECT_EQ(ErrorOf(Seek(file, 0)), ERROR_INVALID_HANDLE);
    SetLastError(untouched);
    EXPECT_EQ(ErrorOf(GetFileSizeEx(file, &size)), ERROR_INVALID_HANDLE);
    SetLastError(untouched);
    EXPECT_EQ(ErrorOf(ReadFile(INVALID_HANDLE_VALUE, &byte, 1, &count, nullptr)), ERROR_INVALID_HANDLE);
}

TEST_F(FileContract, AttributesTellWhatHasTheName) {
    MakeFile(L"file", "x");
    std::filesystem::create_directory(Folder() / "folder");
    const DWORD file = AttributesOf("file");
    ASSERT_NE(file, INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(file & FILE_ATTRIBUTE_DIRECTORY, 0u);
    const DWORD folder = AttributesOf("folder");
    ASSERT_NE(folder, INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(folder & FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(AttributesOf("none"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(AttributesOf("none/none"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesA(""), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

// ---------------------------------------------------------------------------------------------------------------
// Share modes

TEST_F(FileContract, ShareModesDecideEverySecondOpen) {
    MakeFile(L"file", "x");
    const std::array<DWORD, 3> accesses = {GENERIC_READ, GENERIC_WRITE, readWrite};
    const auto allows = [](DWORD share, DWORD access) {
        return ((access & GENERIC_READ) == 0 || (share & FILE_SHARE_READ) != 0) &&
               ((access & GENERIC_WRITE) == 0 || (share & FILE_SHARE_WRITE) != 0);
    };
    for (const DWORD firstAccess : accesses) {
        for (DWORD firstShare = 0; firstShare <= shareAll; firstShare++) {
            const ScopedHandle first(Open(L"file", firstAccess, firstShare, OPEN_EXISTING));
            ASSERT_TRUE(first.IsOpen());
            for (const DWORD secondAccess : accesses) {
                for (DWORD secondShare = 0; secondShare <= shareAll; secondShare++) {
                    const bool agree = allows(firstShare, secondAccess) && allows(secondShare, firstAccess);
                    const ScopedHandle second(Open(L"file", secondAccess, secondShare, OPEN_EXISTING));
                    const DWORD error = GetLastError();
                    EXPECT_EQ(second.IsOpen(), agree) << std::hex << firstAccess << "/" << firstShare << " then "
                                                      << secondAccess << "/" << secondShare;
                    if (!second.IsOpen()) {
                        EXPECT_EQ(error, ERROR_SHARING_VIOLATION);
                    }
                }
            }
        }
    }
}

TEST_F(FileContract, ManyHandlesThatAgreeAreOpenAtOnce) {
    MakeFile(L"file", "x");
    std::vector<std::unique_ptr<ScopedHandle>> handles;
    for (int i = 0; i < 20; i++) {
        const DWORD access = i % 2 == 0 ? GENERIC_WRITE : readWrite;
        handles.push_back(std::make_unique<ScopedHandle>(Open(L"file", access, shareAll, OPEN_EXISTING)));
        ASSERT_TRUE(handles.back()->IsOpen()) << GetLastError();
    }
    EXPECT_EQ(ErrorOf(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING)), ERROR_SHARING_VIOLATION);
    handles.clear();
    const ScopedHandle after(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    EXPECT_TRUE(after.IsOpen());
}

TEST_F(FileContract, RefusedTruncatingOpenChangesNothing) {
    MakeFile(L"file", "content");
    const ScopedHandle reader(Open(L"file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
    EXPECT_EQ(ErrorOf(Open(L"file", GENERIC_WRITE, shareAll, CREATE_ALWAYS)), ERROR_SHARING_VIOLATION);
    std::array<char, 16> buffer{};
    DWORD read = 0;
    EXPECT_TRUE(ReadFile(reader.Get(), buffer.data(), 16, &read, nullptr));
    EXPECT_EQ(std::string(buffer.data(), read), "content");
}

TEST_F(FileContract, RefusedOpenLeavesNoTrace) {
    MakeFile(L"file", "x");
    ScopedHandle writer(Open(L"file", GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING));
    EXPECT_EQ(Open(L"file", GENERIC_WRITE, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    const ScopedHandle reader(Open(L"file", GENERIC_READ, shareAll, OPEN_EXISTING));
    EXPECT_TRUE(reader.IsOpen()) << "a refused share mode of none must not stay in force";
}

// ---------------------------------------------------------------------------------------------------------------
// MoveFileExW

TEST_F(FileContract, MoveGivesTheFileItsNewName) {
    MakeFile(L"from", "content");
    SetLastError(untouched);
    EXPECT_TRUE(Move(L"from", L"to"));
    EXPECT_EQ(GetLastError(), untouched);
    EXPECT_EQ(AttributesOf("from"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(ContentOf(L"to"), "content");
}

TEST_F(FileContract, MoveReachesAnotherFolder) {
    MakeFile(L"from", "content");
    std::filesystem::create_directory(Folder() / "folder");
    EXPECT_TRUE(Move(L"from", L"folder/to"));
    EXPECT_EQ(ContentOf(L"folder/to"), "content");
}

TEST_F(FileContract, MoveNeverReplaces) {
    MakeFile(L"from", "new");
    MakeFile(L"to", "old");
    std::filesystem::create_directory(Folder() / "folder");
    EXPECT_EQ(ErrorOf(Move(L"from", L"to")), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(ErrorOf(Move(L"from", L"folder")), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(ContentOf(L"from"), "new");
    EXPECT_EQ(ContentOf(L"to"), "old");
}

TEST_F(FileContract, MoveNamesWhatIsMissing) {
    MakeFile(L"from", "content");
    EXPECT_EQ(ErrorOf(Move(L"none", L"to")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ErrorOf(Move(L"none/none", L"to")), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOf(Move(L"from", L"none/to")), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ContentOf(L"from"), "content");
}

TEST_F(FileContract, MoveOfAnOpenFileIsASharingViolation) {
    MakeFile(L"from", "content");
    {
        const ScopedHandle reader(Open(L"from", GENERIC_READ, shareAll, OPEN_EXISTING));
        EXPECT_EQ(ErrorOf(Move(L"from", L"to")), ERROR_SHARING_VIOLATION);
    }
    EXPECT_TRUE(Move(L"from", L"to"));
    EXPECT_EQ(ContentOf(L"to"), "content");
}

} // namespace
