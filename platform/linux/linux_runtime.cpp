// The clock, and the calls that the Microsoft C runtime adds to the C library.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "huge_pages.h"
#include "last_error.h"
#include "linux_calls.h"
#include "secret_memory.h"
#include "share_modes.h"
#include "unsupported.h"

using namespace vornix::platform;

ULONGLONG WINAPI LinuxGetTickCount64() {
    // Counted from the start of the system, time asleep included.
    struct timespec now {};
    (void)clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 1000000;
}

// Absolute by the text of the path alone, as the runtime's: no link is followed, and nothing need exist.
char* __cdecl Linux_fullpath(char* absolute, const char* path, size_t size) {
    if (absolute == nullptr) {
        EndUnsupported("_fullpath", "a result without a buffer");
    }
    std::string whole = path != nullptr ? path : "";
    if (whole.empty() || whole[0] != '/') {
        char current[PATH_MAX];
        if (getcwd(current, sizeof current) == nullptr) {
            return nullptr;
        }
        whole = whole.empty() ? current : std::string(current) + "/" + whole;
    }

    std::string result;
    bool endsOpen = false; // ends with a separator: it names a folder and says so
    for (size_t start = 0; start <= whole.size();) {
        const size_t end = std::min(whole.find('/', start), whole.size());
        const std::string name = whole.substr(start, end - start);
        endsOpen = name.empty();
        if (name == "..") {
            result.erase(std::min(result.find_last_of('/'), result.size()));
        } else if (!name.empty() && name != ".") {
            result += "/" + name;
        }
        start = end + 1;
    }
    if (endsOpen || result.empty()) {
        result += "/";
    }

    if (result.size() + 1 > size) {
        errno = ERANGE;
        return nullptr;
    }
    std::memcpy(absolute, result.c_str(), result.size() + 1);
    return absolute;
}

int __cdecl Linux_stricmp(const char* a, const char* b) {
    const auto lower = [](char c) {
        const int value = static_cast<unsigned char>(c);
        return value >= 'A' && value <= 'Z' ? value - 'A' + 'a' : value;
    };
    while (*a != '\0' && lower(*a) == lower(*b)) {
        a++;
        b++;
    }
    return lower(*a) - lower(*b);
}

void* __cdecl Linux_aligned_malloc(size_t size, size_t alignment) {
    if ((alignment & (alignment - 1)) != 0) {
        errno = EINVAL;
        return nullptr;
    }
    int code = 0;
    // Direct transfers go from and to these blocks: in large pages one is few pieces for the disk and not a thousand.
    void* const block = AllocateBlock(size, alignment < sizeof(void*) ? sizeof(void*) : alignment, code);
    if (block == nullptr) {
        errno = code;
    }
    return block;
}

void __cdecl Linux_aligned_free(void* block) {
    std::free(block); // NOLINT(cppcoreguidelines-no-malloc): the allocator of the C runtime is what this is
}

errno_t __cdecl Linuxfopen_s(FILE** stream, const char* path, const char* mode) {
    if (stream == nullptr || path == nullptr || mode == nullptr) {
        return EINVAL;
    }
    if (std::strcmp(mode, "rb") != 0) {
        EndUnsupported("fopen_s", (std::string("mode \"") + mode + "\"").c_str());
    }
    *stream = nullptr;
    // The one file that the program opens in this way is that with the password.
    HideMemory();
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0) {
        const int code = errno;
        (void)FailWith(ErrorOfPath(code, path));
        return code;
    }
    struct stat status {};
    int code = 0;
    if (fstat(descriptor, &status) != 0) {
        code = errno;
        (void)FailWith(ErrorFromErrno(code, Subject::File));
    } else if (S_ISDIR(status.st_mode)) {
        code = EACCES;
        (void)FailWith(ERROR_ACCESS_DENIED);
    } else if (S_ISREG(status.st_mode) && !TakeSharePlace(descriptor, GENERIC_READ, FILE_SHARE_READ)) {
        code = EACCES;
        (void)FailWith(ERROR_SHARING_VIOLATION);
    } else {
        *stream = fdopen(descriptor, "rb");
        code = *stream != nullptr ? 0 : errno;
    }
    if (*stream == nullptr) {
        (void)close(descriptor);
    } else {
        // The runtime opens through CreateFileW, whose success clears it.
        SetLastError(ERROR_SUCCESS);
    }
    return code;
}
