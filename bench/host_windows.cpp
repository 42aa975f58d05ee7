// The described machine's host on Windows. See host.h and real_calls.h.
#include "host.h"

#include "real_calls.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <string_view>

namespace vornix::bench {

namespace {

// The library that answers the calls of an SDK header. The aligned allocator and _fullpath have to come from the very
// runtime that this executable is linked with, since its _aligned_free gives the blocks back.
const wchar_t* LibraryOfHeader(std::string_view header) {
    if (header == "windows.h") {
        return L"kernel32.dll";
    }
    if (header == "bcrypt.h") {
        return L"bcrypt.dll";
    }
    if (header == "objbase.h") {
        return L"ole32.dll";
    }
    if (header == "oleauto.h") {
        return L"oleaut32.dll";
    }
    if (header == "vsbackup.h") {
        return L"vssapi.dll";
    }
    return L"msvcrt.dll";
}

void* FindReal(const char* header, const char* name) {
    const HMODULE library = LoadLibraryW(LibraryOfHeader(header));
    void* const function = library == nullptr ? nullptr : reinterpret_cast<void*>(GetProcAddress(library, name));
    if (function == nullptr) {
        EndUnsupported(std::string(name) + ", which this system does not have");
    }
    return function;
}

} // namespace

} // namespace vornix::bench

// The pointers are plain statics and no function-local constants: these calls come from the runtime's own start, too,
// when the guards of the latter cannot be relied on yet.
#define VORNIX_REAL_SHARED(header, result, convention, name, parameters, arguments)
#define VORNIX_REAL_SWAPPED(header, result, convention, name, parameters, arguments)                                   \
    result convention Real##name parameters {                                                                          \
        using Function = result(convention*) parameters;                                                               \
        static Function function = nullptr;                                                                            \
        if (function == nullptr) {                                                                                     \
            function = reinterpret_cast<Function>(vornix::bench::FindReal(header, #name));                             \
        }                                                                                                              \
        return function arguments;                                                                                     \
    }
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    VORNIX_REAL_##kind(header, result, convention, name, parameters, arguments)
#include "../platform/calls.def"
#undef VORNIX_CALL
#undef VORNIX_REAL_SWAPPED
#undef VORNIX_REAL_SHARED

namespace vornix::bench {

namespace {

class WindowsFile final : public HostFile {
public:
    explicit WindowsFile(HANDLE handle) : handle_(handle) {}
    WindowsFile(const WindowsFile&) = delete;
    WindowsFile& operator=(const WindowsFile&) = delete;
    ~WindowsFile() override { RealCloseHandle(handle_); }

    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length) override {
        return TransferAll(
            offset, length, [&](std::size_t done, DWORD count, DWORD* transferred, OVERLAPPED* position) {
                const bool ok =
                    RealReadFile(handle_, static_cast<char*>(buffer) + done, count, transferred, position) != FALSE;
                // The end of the file, reported as an error only because a position was given.
                return ok || GetLastError() == ERROR_HANDLE_EOF;
            });
    }

    HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) override {
        return TransferAll(offset, length,
                           [&](std::size_t done, DWORD count, DWORD* transferred, OVERLAPPED* position) {
                               return RealWriteFile(handle_, static_cast<const char*>(buffer) + done, count,
                                                    transferred, position) != FALSE;
                           });
    }

    std::optional<std::uint64_t> FindSize() override {
        LARGE_INTEGER size;
        if (!RealGetFileSizeEx(handle_, &size)) {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(size.QuadPart);
    }

private:
    // Repeats step(done, count, transferred, position) until all is transferred, the file ends or the host fails.
    template <typename Step>
    static HostTransfer TransferAll(std::uint64_t offset, std::size_t length, Step step) {
        constexpr std::size_t largestStep = 1u << 30;
        HostTransfer transfer;
        while (transfer.Count < length) {
            const std::uint64_t at = offset + transfer.Count;
            OVERLAPPED position = {};
            position.Offset = static_cast<DWORD>(at & 0xFFFFFFFF);
            position.OffsetHigh = static_cast<DWORD>(at >> 32);
            DWORD transferred = 0;
            const auto count = static_cast<DWORD>(std::min(length - transfer.Count, largestStep));
            if (!step(transfer.Count, count, &transferred, &position)) {
                transfer.Error = GetLastError();
                break;
            }
            if (transferred == 0) {
                break;
            }
            transfer.Count += transferred;
        }
        return transfer;
    }

    HANDLE handle_;
};

} // namespace

std::unique_ptr<HostFile> HostFile::Open(const std::string& path, Mode mode) {
    const DWORD access = mode == Mode::Read ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
    const DWORD disposition = mode == Mode::Create ? CREATE_ALWAYS : OPEN_EXISTING;
    const HANDLE handle =
        RealCreateFileW(WideFromUtf8(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                        nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    return std::make_unique<WindowsFile>(handle);
}

void PrepareHost() {}

std::string JoinHostPath(const std::string& folder, const std::string& name) {
    const bool absolute = name.starts_with('/') || name.starts_with('\\') || (name.size() > 1 && name[1] == ':');
    return absolute ? name : folder + "\\" + name;
}

std::string Utf8FromNarrow(const char* text) {
    if (text == nullptr) {
        return "";
    }
    const int length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(std::max(length, 1)), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), length);
    return Utf8FromWide(wide.c_str());
}

void EndProcess(unsigned int status) {
    TerminateProcess(GetCurrentProcess(), status);
    // The process ends itself, so the call above does not return; the loop says so to the compiler.
    for (;;) {
    }
}

void RaiseMissingLibrary() {
    constexpr DWORD moduleNotFound = 0xC06D007E; // as the delay-load helper raises it
    RaiseException(moduleNotFound, 0, 0, nullptr);
    EndUnsupported("a delay-loaded library that is missing and whose absence is ignored");
}

void EndUnsupported(const std::string& what) {
    std::fprintf(stderr, "vornix-bench: the described machine does not imitate %s\n", what.c_str());
    std::fflush(stderr);
    EndProcess(3);
}

} // namespace vornix::bench
