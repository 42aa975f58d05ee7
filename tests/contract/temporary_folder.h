// What the contract tests share: a folder of its own for each test, and handles that close themselves. The tests
// stand on the published calls alone, so that the same source judges the answers of each platform.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

constexpr DWORD readWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;

inline LARGE_INTEGER LargeInteger(long long value) {
    LARGE_INTEGER result;
    result.QuadPart = value;
    return result;
}

template <typename Offset>
BOOL Seek(HANDLE handle, Offset offset) {
    return SetFilePointerEx(handle, LargeInteger(static_cast<long long>(offset)), nullptr, FILE_BEGIN);
}

// The last error of a call that has to fail; 0 where it did not.
inline DWORD ErrorOf(BOOL succeeded) {
    return succeeded ? 0 : GetLastError();
}

inline DWORD ErrorOf(HANDLE handle) {
    return handle != INVALID_HANDLE_VALUE ? 0 : GetLastError();
}

// A handle that is closed with its scope, unless the test closed it before.
class ScopedHandle {
public:
    explicit ScopedHandle(HANDLE handle) : handle_(handle) {}
    ~ScopedHandle() { Close(); }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;

    HANDLE Get() const { return handle_; }
    bool IsOpen() const { return handle_ != INVALID_HANDLE_VALUE; }
    void Close() {
        if (IsOpen()) {
            EXPECT_TRUE(CloseHandle(handle_));
            handle_ = INVALID_HANDLE_VALUE;
        }
    }

private:
    HANDLE handle_;
};

// Each test runs with a new, empty folder, which is removed with all that is in it.
class TemporaryFolderTest : public testing::Test {
protected:
    void SetUp() override {
        static std::atomic<unsigned> count{0};
        const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
        folder_ = std::filesystem::temp_directory_path() /
                  ("vornix-contract-" + std::to_string(ticks) + "-" + std::to_string(count++));
        ASSERT_TRUE(std::filesystem::create_directory(folder_));
    }

    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    // The path of a name in the folder, as the wide calls take it; the names are ASCII or spelt in 16-bit units.
    std::wstring WidePath(const std::wstring& name) const {
        std::wstring path;
        for (const char c : folder_.string()) {
            path.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
        }
        return path + static_cast<wchar_t>(std::filesystem::path::preferred_separator) + name;
    }

    std::string NarrowPath(const std::string& name) const { return (folder_ / name).string(); }

    const std::filesystem::path& Folder() const { return folder_; }

    HANDLE Open(const std::wstring& name, DWORD access, DWORD share, DWORD disposition,
                DWORD flags = FILE_ATTRIBUTE_NORMAL) const {
        return CreateFileW(WidePath(name).c_str(), access, share, nullptr, disposition, flags, nullptr);
    }

    BOOL Move(const std::wstring& from, const std::wstring& to) const {
        return MoveFileExW(WidePath(from).c_str(), WidePath(to).c_str(), MOVEFILE_WRITE_THROUGH);
    }

    DWORD AttributesOf(const std::string& name) const { return GetFileAttributesA(NarrowPath(name).c_str()); }

    // Makes a file with this content.
    void MakeFile(const std::wstring& name, const std::string& content) const {
        const ScopedHandle file(Open(name, GENERIC_WRITE, 0, CREATE_NEW));
        ASSERT_TRUE(file.IsOpen()) << GetLastError();
        DWORD written = 0;
        ASSERT_TRUE(WriteFile(file.Get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr));
        ASSERT_EQ(written, content.size());
    }

    // The content of a file, up to a mebibyte of it.
    std::string ContentOf(const std::wstring& name) const {
        const ScopedHandle file(Open(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING));
        EXPECT_TRUE(file.IsOpen()) << GetLastError();
        std::string content(1 << 20, '\0');
        DWORD read = 0;
        EXPECT_TRUE(ReadFile(file.Get(), content.data(), static_cast<DWORD>(content.size()), &read, nullptr));
        content.resize(read);
        return content;
    }

private:
    std::filesystem::path folder_;
};
