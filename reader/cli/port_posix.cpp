// The port for POSIX systems, and the main function there. It is not for anything that another system could do as well.

#include "command_line.h"
#include "port.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

namespace vrnx_cli {

namespace {

int Descriptor(Stream stream) {
    return stream == Stream::output ? STDOUT_FILENO : STDERR_FILENO;
}

int Descriptor(intptr_t handle) {
    return static_cast<int>(handle);
}

// Gives 0 or the error of a call that returns -1 for a failure.
int ErrorOf(int result) {
    return result == -1 ? errno : 0;
}

int OpenForReading(const std::string& path, int flags) {
    int fd = -1;
    do {
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
    } while (fd == -1 && errno == EINTR);
    return fd;
}

// A file's name outlives a loss of power once its folder has been written too.
void SyncFolder(const std::string& path) {
    std::string name = NameInPath(path);
    std::string folder = path.substr(0, path.size() - name.size());
    int fd = OpenForReading(folder.empty() ? "." : folder, O_DIRECTORY);
    if (fd == -1) {
        return;
    }
    // Some file systems know no such call, and nothing is lost where the machine keeps running.
    static_cast<void>(fsync(fd));
    close(fd);
}

} // namespace

std::string DescribeSystemError(int error) {
    return std::generic_category().message(error);
}

bool SaysMissing(int error) {
    return error == ENOENT;
}

// --- Streams --------------------------------------------------------------------------------------------------------

bool IsTerminal(Stream stream) {
    return isatty(Descriptor(stream)) == 1;
}

bool TakesColours() {
    const char* term = std::getenv("TERM");
    const char* refusal = std::getenv("NO_COLOR");
    return IsTerminal(Stream::output) && (refusal == nullptr || *refusal == '\0') && term != nullptr &&
           std::string_view(term) != "dumb";
}

size_t TerminalColumns() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 80;
}

bool IsOutputBlockDevice() {
    struct stat information = {};
    return fstat(STDOUT_FILENO, &information) == 0 && S_ISBLK(information.st_mode);
}

int WriteStream(Stream stream, const void* bytes, size_t length) {
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        ssize_t count = write(Descriptor(stream), next, length);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0 ? EIO : errno;
        }
        next += count;
        length -= static_cast<size_t>(count);
    }
    return 0;
}

// --- Files ----------------------------------------------------------------------------------------------------------

int ReadFolder(const std::string& folder, std::vector<std::string>& names) {
    DIR* stream = opendir(folder.c_str());
    if (stream == nullptr) {
        return errno;
    }
    int error = 0;
    while (true) {
        errno = 0;
        const dirent* entry = readdir(stream);
        if (entry == nullptr) {
            error = errno;
            break;
        }
        struct stat information = {};
        if (fstatat(dirfd(stream), entry->d_name, &information, 0) == 0 && S_ISREG(information.st_mode)) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    return error;
}

std::string JoinPath(const std::string& folder, const std::string& name) {
    return folder.empty() || folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string NameInPath(const std::string& path) {
    size_t separator = path.rfind('/');
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

std::string NameKey(const std::string& name) {
    return name;
}

int ReadWholeFile(const std::string& path, size_t limit, std::string& content) {
    content.clear();
    int fd = OpenForReading(path, 0);
    if (fd == -1) {
        return errno;
    }
    int error = 0;
    while (content.size() < limit) {
        size_t had = content.size();
        content.resize(std::min(limit, had + 65536));
        ssize_t count = read(fd, content.data() + had, content.size() - had);
        error = count == -1 && errno != EINTR ? errno : 0;
        content.resize(had + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0 || error != 0) {
            break;
        }
    }
    close(fd);
    return error;
}

bool IsBlockDevice(const std::string& path) {
    struct stat information = {};
    return stat(path.c_str(), &information) == 0 && S_ISBLK(information.st_mode);
}

NewFile::~NewFile() {
    if (handle_ != -1) {
        close(Descriptor(handle_)); // given up: whatever it could tell is no news
    }
}

int NewFile::Create(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd == -1) {
        return errno;
    }
    handle_ = fd;
    path_ = path;
    return 0;
}

// A file that is written to changes, whatever its owner holds of it.
// NOLINTNEXTLINE(readability-make-member-function-const)
int NewFile::Write(uint64_t offset, const void* bytes, size_t length) {
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        ssize_t count = pwrite(Descriptor(handle_), next, length, static_cast<off_t>(offset));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0 ? EIO : errno;
        }
        next += count;
        offset += static_cast<uint64_t>(count);
        length -= static_cast<size_t>(count);
    }
    return 0;
}

// NOLINTNEXTLINE(readability-make-member-function-const)
int NewFile::Resize(uint64_t size) {
    return ErrorOf(ftruncate(Descriptor(handle_), static_cast<off_t>(size)));
}

int NewFile::Finish() {
    int error = ErrorOf(fsync(Descriptor(handle_)));
    int closed = ErrorOf(close(Descriptor(handle_)));
    handle_ = -1;
    SyncFolder(path_);
    return error != 0 ? error : closed;
}

void NewFile::Remove() {
    close(Descriptor(handle_));
    handle_ = -1;
    unlink(path_.c_str());
}

RawCopy::~RawCopy() {
    if (handle_ != -1) {
        close(Descriptor(handle_));
    }
}

int RawCopy::Open(const std::string& path) {
    // A pipe without a writer must not hold the run up.
    int fd = OpenForReading(path, O_NONBLOCK);
    if (fd == -1) {
        return errno;
    }
    struct stat information = {};
    int error = ErrorOf(fstat(fd, &information));
    if (error == 0 && S_ISDIR(information.st_mode)) {
        error = EISDIR;
    } else if (error == 0 && !S_ISREG(information.st_mode) && !S_ISBLK(information.st_mode)) {
        error = ESPIPE;
    }
    if (error != 0) {
        close(fd);
        return error;
    }
    handle_ = fd;
    return 0;
}

bool RawCopy::Read(uint64_t offset, void* buffer, size_t length) const {
    char* next = static_cast<char*>(buffer);
    while (length > 0) {
        ssize_t count = pread(Descriptor(handle_), next, length, static_cast<off_t>(offset));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        next += count;
        offset += static_cast<uint64_t>(count);
        length -= static_cast<size_t>(count);
    }
    return true;
}

} // namespace vrnx_cli

int main(int argc, char** argv) {
    // An output that nobody reads is a failed write like any other.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    // A stream that the caller closed must not become a file that is opened here: a place holder takes its number, one
    // that cannot be written to.
    int placeHolder = -1;
    do {
        placeHolder = open("/dev/null", O_RDONLY);
    } while (placeHolder != -1 && placeHolder <= STDERR_FILENO);
    if (placeHolder != -1) {
        close(placeHolder);
    }
    return vrnx_cli::RunCommandLine(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
}
