// The port for Windows, and the main function there. It is not for anything that another system could do as well.

#include "command_line.h"
#include "port.h"

#include <windows.h>

#include <algorithm>
#include <system_error>

namespace vrnx_cli {

namespace {

HANDLE AsHandle(intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

HANDLE HandleOf(Stream stream) {
    return GetStdHandle(stream == Stream::output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

// The result of a call that says with false that it failed.
int ErrorOf(BOOL result) {
    return result ? 0 : static_cast<int>(GetLastError());
}

std::wstring Widen(const std::string& text) {
    int count = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(std::max(count, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), count);
    return wide;
}

std::string Narrow(const std::wstring& wide) {
    int count =
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(std::max(count, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), count, nullptr, nullptr);
    return text;
}

// Whoever else has the file open, for whatever: a capture may be writing it. Opens folders too, so that they can be
// told.
HANDLE OpenForReading(const std::string& path) {
    return CreateFileW(Widen(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

OVERLAPPED PlaceAt(uint64_t offset) {
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return place;
}

constexpr size_t largestTransfer = 0x1000000;

DWORD TransferLength(size_t length) {
    return static_cast<DWORD>(std::min(length, largestTransfer));
}

// A link is followed to what it leads to.
bool IsRegularFile(const std::wstring& folder, const WIN32_FIND_DATAW& entry) {
    if ((entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        return (entry.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) == 0;
    }
    HANDLE handle = CreateFileW((folder + L"\\" + entry.cFileName).c_str(), 0,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    BY_HANDLE_FILE_INFORMATION information = {};
    bool regular = GetFileType(handle) == FILE_TYPE_DISK && GetFileInformationByHandle(handle, &information) &&
                   (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    CloseHandle(handle);
    return regular;
}

} // namespace

std::string DescribeSystemError(int error) {
    wchar_t text[512] = L"";
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                  static_cast<DWORD>(error), 0, text, 512, nullptr);
    while (length > 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.')) {
        length--;
    }
    return length == 0 ? "error " + std::to_string(error) : Narrow(std::wstring(text, length));
}

bool SaysMissing(int error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

// --- Streams --------------------------------------------------------------------------------------------------------

bool IsTerminal(Stream stream) {
    DWORD mode = 0;
    return GetConsoleMode(HandleOf(stream), &mode) != 0;
}

bool TakesColours() {
    DWORD mode = 0;
    HANDLE console = HandleOf(Stream::output);
    return GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) <= 1 && GetConsoleMode(console, &mode) &&
           SetConsoleMode(console, mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

size_t TerminalColumns() {
    CONSOLE_SCREEN_BUFFER_INFO information = {};
    if (!GetConsoleScreenBufferInfo(HandleOf(Stream::output), &information)) {
        return 80;
    }
    return static_cast<size_t>(std::max(information.srWindow.Right - information.srWindow.Left + 1, 1));
}

bool IsOutputBlockDevice() {
    return false;
} // the shell of Windows sends no output there

int WriteStream(Stream stream, const void* bytes, size_t length) {
    HANDLE handle = HandleOf(stream);
    const char* next = static_cast<const char*>(bytes);
    DWORD count = 0;
    if (IsTerminal(stream)) {
        std::wstring wide = Widen(std::string(next, length));
        for (size_t at = 0; at < wide.size(); at += count) {
            if (!WriteConsoleW(handle, wide.data() + at, static_cast<DWORD>(std::min<size_t>(wide.size() - at, 8192)),
                               &count, nullptr)) {
                return static_cast<int>(GetLastError());
            }
        }
        return 0;
    }
    while (length > 0) {
        if (!WriteFile(handle, next, TransferLength(length), &count, nullptr)) {
            return static_cast<int>(GetLastError());
        }
        if (count == 0) {
            return ERROR_WRITE_FAULT;
        }
        next += count;
        length -= count;
    }
    return 0;
}

// --- Files ----------------------------------------------------------------------------------------------------------

int ReadFolder(const std::string& folder, std::vector<std::string>& names) {
    std::wstring wide = Widen(folder);
    WIN32_FIND_DATAW entry = {};
    DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return static_cast<int>(GetLastError());
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        return ERROR_DIRECTORY;
    }
    HANDLE search = FindFirstFileW(Widen(JoinPath(folder, "*")).c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE) {
        return GetLastError() == ERROR_FILE_NOT_FOUND ? 0 : static_cast<int>(GetLastError());
    }
    BOOL more = TRUE;
    while (more) {
        if (IsRegularFile(wide, entry)) {
            names.push_back(Narrow(entry.cFileName));
        }
        more = FindNextFileW(search, &entry);
    }
    DWORD error = GetLastError();
    FindClose(search);
    return error == ERROR_NO_MORE_FILES ? 0 : static_cast<int>(error);
}

std::string JoinPath(const std::string& folder, const std::string& name) {
    static const std::string separators = "\\/:";
    return folder.empty() || separators.find(folder.back()) != std::string::npos ? folder + name : folder + "\\" + name;
}

std::string NameInPath(const std::string& path) {
    size_t separator = path.find_last_of("\\/:");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

std::string NameKey(const std::string& name) {
    std::wstring wide = Widen(name);
    int length = static_cast<int>(wide.size());
    std::wstring upper(wide.size(), L'\0');
    LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, wide.data(), length, upper.data(), length, nullptr, nullptr,
                  0);
    return Narrow(upper);
}

int ReadWholeFile(const std::string& path, size_t limit, std::string& content) {
    content.clear();
    HANDLE handle = OpenForReading(path);
    if (handle == INVALID_HANDLE_VALUE) {
        return static_cast<int>(GetLastError());
    }
    int error = 0;
    while (content.size() < limit) {
        size_t had = content.size();
        content.resize(std::min(limit, had + 65536));
        DWORD count = 0;
        error =
            ErrorOf(ReadFile(handle, content.data() + had, static_cast<DWORD>(content.size() - had), &count, nullptr));
        content.resize(had + count);
        if (error == ERROR_BROKEN_PIPE) {
            error = 0; // the end of a pipe
        }
        if (error != 0 || count == 0) {
            break;
        }
    }
    CloseHandle(handle);
    return error;
}

bool IsBlockDevice(const std::string& path) {
    // The names of devices: \\.\PhysicalDrive1, \\.\C:, in either direction of the strokes, and by the other prefix.
    std::string name = path.substr(0, 4);
    std::replace(name.begin(), name.end(), '/', '\\');
    if (name != "\\\\.\\" && name != "\\\\?\\") {
        return false;
    }
    // Behind the other prefix stand drives and shares with files as well.
    return name[2] == '.' || NameKey(path.substr(4)).rfind("GLOBALROOT", 0) == 0 ||
           NameKey(path.substr(4)).rfind("PHYSICALDRIVE", 0) == 0;
}

NewFile::~NewFile() {
    if (handle_ != -1) {
        CloseHandle(AsHandle(handle_)); // given up: whatever it could tell is no news
    }
}

int NewFile::Create(const std::string& path) {
    HANDLE handle = CreateFileW(Widen(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return static_cast<int>(GetLastError());
    }
    handle_ = reinterpret_cast<intptr_t>(handle);
    path_ = path;
    DWORD count = 0;
    // FSCTL_SET_SPARSE. Without holes the file is as good, and larger.
    static_cast<void>(DeviceIoControl(handle, 0x000900C4, nullptr, 0, nullptr, 0, &count, nullptr));
    return 0;
}

int NewFile::Write(uint64_t offset, const void* bytes, size_t length) {
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        OVERLAPPED place = PlaceAt(offset);
        DWORD count = 0;
        if (!WriteFile(AsHandle(handle_), next, TransferLength(length), &count, &place)) {
            return static_cast<int>(GetLastError());
        }
        if (count == 0) {
            return ERROR_WRITE_FAULT;
        }
        next += count;
        offset += count;
        length -= count;
    }
    return 0;
}

int NewFile::Resize(uint64_t size) {
    LARGE_INTEGER end = {};
    end.QuadPart = static_cast<LONGLONG>(size);
    int error = ErrorOf(SetFilePointerEx(AsHandle(handle_), end, nullptr, FILE_BEGIN));
    return error != 0 ? error : ErrorOf(SetEndOfFile(AsHandle(handle_)));
}

int NewFile::Finish() {
    int error = ErrorOf(FlushFileBuffers(AsHandle(handle_)));
    int closed = ErrorOf(CloseHandle(AsHandle(handle_)));
    handle_ = -1;
    return error != 0 ? error : closed;
}

void NewFile::Remove() {
    CloseHandle(AsHandle(handle_));
    handle_ = -1;
    DeleteFileW(Widen(path_).c_str());
}

RawCopy::~RawCopy() {
    if (handle_ != -1) {
        CloseHandle(AsHandle(handle_));
    }
}

int RawCopy::Open(const std::string& path) {
    HANDLE handle = OpenForReading(path);
    if (handle == INVALID_HANDLE_VALUE) {
        return static_cast<int>(GetLastError());
    }
    if (GetFileType(handle) != FILE_TYPE_DISK) {
        CloseHandle(handle);
        return ERROR_BAD_FILE_TYPE;
    }
    handle_ = reinterpret_cast<intptr_t>(handle);
    return 0;
}

bool RawCopy::Read(uint64_t offset, void* buffer, size_t length) const {
    char* next = static_cast<char*>(buffer);
    while (length > 0) {
        OVERLAPPED place = PlaceAt(offset);
        DWORD count = 0;
        if (!ReadFile(AsHandle(handle_), next, TransferLength(length), &count, &place) || count == 0) {
            return false;
        }
        next += count;
        offset += count;
        length -= count;
    }
    return true;
}

} // namespace vrnx_cli

// A library that is not in memory yet comes from the system and from nowhere else, before the runtime library's own
// start looks for one: vrnx.exe may lie in a folder of downloads. The call cannot fail with this argument.
__attribute__((constructor(101))) static void TakeLibrariesFromTheSystem() {
    (void)SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
}

// The command prompt leaves patterns of names to the program; the runtime library puts the names in their place.
extern "C" int _dowildcard;
int _dowildcard = -1;

extern "C" int wmain(int argc, wchar_t** argv);

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> arguments;
    for (int at = 1; at < argc; at++) {
        arguments.push_back(vrnx_cli::Narrow(argv[at]));
    }
    return vrnx_cli::RunCommandLine(arguments);
}
