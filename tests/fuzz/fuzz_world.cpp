// The answers to the program's calls in the world of the fuzz targets, and the fatal report that does not end it.
#include "fuzz_world.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <stdio.h>
#include <stdlib.h>

#include <bcrypt.h>
#include <ntstatus.h>
#include <vsbackup.h>
#include <winioctl.h>

#include "cli/fatal.h"
#include "linux/linux_calls.h"
#include "tracker/tracker_protocol.h"

namespace vornix {

void Fatal(const char* message, LONG status) {
    (void)message;
    (void)status;
    throw fuzz::FatalEnd{};
}

} // namespace vornix

namespace vornix::fuzz {

namespace {

struct MemoryHandle {
    const Bytes* Content = nullptr; // null for a device
    uint64_t Position = 0;
    size_t Volume = 0;
};

std::vector<MemoryHandle>& Handles() {
    static std::vector<MemoryHandle> handles;
    return handles;
}

size_t trackerQueries = 0;

HANDLE Register(const MemoryHandle& handle) {
    Handles().push_back(handle);
    return reinterpret_cast<HANDLE>(Handles().size());
}

MemoryHandle& Find(HANDLE handle) {
    return Handles().at(reinterpret_cast<size_t>(handle) - 1);
}

std::string Narrow(LPCWSTR wide) {
    std::string narrow;
    for (; *wide != 0; ++wide) {
        narrow.push_back(static_cast<char>(*wide));
    }
    return narrow;
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

BOOL AnswerTracker(DWORD code, LPVOID out, DWORD outLength) {
    if (code != IOCTL_TRACKER_QUERY) {
        return TRUE;
    }
    if (trackerQueries >= TheWorld().TrackerReplies.size()) {
        return Fail(ERROR_INVALID_FUNCTION);
    }
    const Bytes& reply = TheWorld().TrackerReplies[trackerQueries++];
    if (!reply.empty() && out != nullptr) {
        std::memcpy(out, reply.data(), std::min<size_t>(reply.size(), outLength));
    }
    return reply.size() <= outLength ? TRUE : Fail(ERROR_MORE_DATA);
}

BOOL AnswerExtents(size_t volume, LPVOID out, DWORD outLength) {
    const Bytes& reply = TheWorld().VolumeExtents[volume];
    if (reply.empty()) {
        return TRUE;
    }
    std::memcpy(out, reply.data(), std::min<size_t>(reply.size(), outLength));
    return reply.size() <= outLength ? TRUE : Fail(ERROR_MORE_DATA);
}

size_t enumerated = 0;

BOOL NextVolume(LPWSTR name, DWORD length) {
    if (enumerated >= TheWorld().VolumeNames.size()) {
        return Fail(ERROR_NO_MORE_FILES);
    }
    const std::u16string& text = TheWorld().VolumeNames[enumerated++];
    const size_t count = std::min<size_t>(text.size(), length - 1);
    for (size_t i = 0; i < count; ++i) {
        name[i] = static_cast<WCHAR>(text[i]);
    }
    name[count] = 0;
    return TRUE;
}

// The platform's own answers, one static member a call; what the world answers itself hides its namesake.
struct PlatformAnswers {
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    static result name parameters {                                                                                    \
        return Linux##name arguments;                                                                                  \
    }
#include "calls.def"
#undef VORNIX_CALL
};

struct WorldAnswers : PlatformAnswers {
    static HANDLE CreateFileW(LPCWSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
        const std::string name = Narrow(path);
        if (name == "\\\\.\\Wendrel") {
            return Register({});
        }
        for (size_t i = 0; i < TheWorld().VolumeNames.size(); ++i) {
            std::string volume;
            for (const char16_t unit : TheWorld().VolumeNames[i]) {
                volume.push_back(static_cast<char>(unit));
            }
            if ((volume == name || volume == name + "\\") && !TheWorld().VolumeExtents[i].empty()) {
                return Register({nullptr, 0, i});
            }
        }
        const auto file = TheWorld().Files.find(name);
        if (file == TheWorld().Files.end()) {
            Fail(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        return Register({&file->second, 0, 0});
    }

    static BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED) {
        MemoryHandle& handle = Find(file);
        const uint64_t size = handle.Content->size();
        const uint64_t left = handle.Position < size ? size - handle.Position : 0;
        *transferred = static_cast<DWORD>(std::min<uint64_t>(left, length));
        if (*transferred != 0) {
            std::memcpy(buffer, handle.Content->data() + handle.Position, *transferred);
        }
        handle.Position += *transferred;
        return TRUE;
    }

    static BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER, DWORD) {
        if (distance.QuadPart < 0) {
            return Fail(ERROR_NEGATIVE_SEEK);
        }
        Find(file).Position = static_cast<uint64_t>(distance.QuadPart);
        return TRUE;
    }

    static BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER size) {
        size->QuadPart = static_cast<LONGLONG>(Find(file).Content->size());
        return TRUE;
    }

    static DWORD GetFileAttributesA(LPCSTR path) {
        return TheWorld().Files.contains(path) ? FILE_ATTRIBUTE_NORMAL : INVALID_FILE_ATTRIBUTES;
    }

    static BOOL CloseHandle(HANDLE handle) {
        Find(handle) = {};
        return TRUE;
    }

    static BOOL DeviceIoControl(HANDLE device, DWORD code, LPVOID, DWORD, LPVOID out, DWORD outLength, LPDWORD returned,
                                LPOVERLAPPED) {
        *returned = 0;
        return code == IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS ? AnswerExtents(Find(device).Volume, out, outLength)
                                                            : AnswerTracker(code, out, outLength);
    }

    static HANDLE FindFirstVolumeW(LPWSTR name, DWORD length) {
        enumerated = 0;
        return NextVolume(name, length) ? Register({}) : INVALID_HANDLE_VALUE;
    }
    static BOOL FindNextVolumeW(HANDLE, LPWSTR name, DWORD length) { return NextVolume(name, length); }
    static BOOL FindVolumeClose(HANDLE search) { return CloseHandle(search); }

    // A hundred thousand rounds for every input would leave no time to look at anything else.
    static NTSTATUS BCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                          ULONG saltLength, ULONGLONG, PUCHAR key, ULONG keyLength, ULONG) {
        for (ULONG i = 0; i < keyLength; ++i) {
            key[i] = static_cast<UCHAR>(password[i % passwordLength] ^ salt[i % saltLength]);
        }
        return STATUS_SUCCESS;
    }

    static errno_t fopen_s(FILE** stream, const char* path, const char* mode) {
        (void)path;
        Bytes& content = TheWorld().PasswordFile;
        *stream = content.empty() ? ::fopen("/dev/null", mode) : fmemopen(content.data(), content.size(), mode);
        return *stream == nullptr ? 1 : 0;
    }
};

} // namespace

World& TheWorld() {
    static World world;
    return world;
}

void ResetWorld() {
    TheWorld() = {};
    Handles().clear();
    trackerQueries = 0;
    enumerated = 0;
}

uint64_t PositionOf(void* handle) {
    return Find(handle).Position;
}

bool SurvivesFatal(const std::function<void()>& body) {
    try {
        body();
        return true;
    } catch (const FatalEnd&) {
        return false;
    }
}

void ReportBroken(const char* invariant) {
    std::fprintf(stderr, "broken: %s\n", invariant);
    std::abort();
}

uint64_t Input::TakeNumber(size_t width) {
    uint64_t value = 0;
    const Bytes bytes = TakeBytes(width);
    for (size_t i = 0; i < bytes.size(); ++i) {
        value |= uint64_t{bytes[i]} << (8 * i);
    }
    return value;
}

Bytes Input::TakeBytes(size_t count) {
    const size_t taken = std::min(count, left_);
    Bytes bytes(data_, data_ + taken);
    data_ += taken;
    left_ -= taken;
    return bytes;
}

} // namespace vornix::fuzz

extern "C" {
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    result name parameters {                                                                                           \
        return vornix::fuzz::WorldAnswers::name arguments;                                                             \
    }
#include "calls.def"
#undef VORNIX_CALL
}
