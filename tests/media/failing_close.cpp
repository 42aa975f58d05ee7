// Loaded in front of the C library: the close of a file whose name ends in $VORNIX_FAILING_CLOSE, and that was open for
// writing, says that a quota is used up, as some file systems say only there. For tests alone.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int close(int descriptor) {
    bool isTheOne = false;
    if (const char* const suffix = std::getenv("VORNIX_FAILING_CLOSE")) {
        const int flags = fcntl(descriptor, F_GETFL);
        std::array<char, 4096> path{};
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        const ssize_t length = readlink(link.c_str(), path.data(), path.size());
        isTheOne = flags >= 0 && (flags & O_ACCMODE) != O_RDONLY && length > 0 &&
                   std::string_view(path.data(), static_cast<size_t>(length)).ends_with(suffix);
    }
    const auto status = static_cast<int>(syscall(SYS_close, descriptor));
    if (isTheOne && status == 0) {
        errno = EDQUOT;
        return -1;
    }
    return status;
}
