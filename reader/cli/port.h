// What the command needs of an operating system: the whole of what a port has to supply. port_posix.cpp and
// port_windows.cpp are the two there are, and the only files here that know a system; each also holds the main
// function.
//
// It is not for reading images: those belong to libvrnx, which has a port of its own.
//
// Paths are those of vrnx.h: on POSIX systems bytes, on Windows UTF-8. Functions that give an int give 0, or the
// system's error, which DescribeSystemError puts in words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vrnx_cli {

std::string DescribeSystemError(int error);

// Whether an error says that there is no such file.
bool SaysMissing(int error);

// --- Streams --------------------------------------------------------------------------------------------------------

enum class Stream {
    output,
    error
};

bool IsTerminal(Stream stream);

// Whether standard output is a terminal that takes colours in the sequences of ECMA-48, and the user wants them.
bool TakesColours();

// Columns of the terminal on standard output; 80 where that is none or does not tell.
size_t TerminalColumns();

// Whether standard output is a disk or another block device.
bool IsOutputBlockDevice();

// Writes all of the bytes; to a console of Windows as the text that they are in UTF-8.
int WriteStream(Stream stream, const void* bytes, size_t length);

// --- Files ----------------------------------------------------------------------------------------------------------

// The names of the regular files in a folder, links followed, in no order.
int ReadFolder(const std::string& folder, std::vector<std::string>& names);

// The path of a file in a folder.
std::string JoinPath(const std::string& folder, const std::string& name);

// The file's name in a path.
std::string NameInPath(const std::string& path);

// Two names of a folder mean the same file where their keys are equal: on Windows letter case does not count.
std::string NameKey(const std::string& name);

// Reads a file, also one that is a pipe, as far as `limit` bytes.
int ReadWholeFile(const std::string& path, size_t limit, std::string& content);

// Whether a path leads to a disk or another block device.
bool IsBlockDevice(const std::string& path);

// A new file. What was written stays when it is given up.
class NewFile {
public:
    NewFile() = default;
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile();

    // Creates the file; fails where anything is there under its name, be it a link that leads nowhere.
    int Create(const std::string& path);

    int Write(uint64_t offset, const void* bytes, size_t length);

    // Grows the file to this size; what was not written is a hole where the file system has holes, and reads as zeros.
    int Resize(uint64_t size);

    // Brings content and name to the medium, and closes the file.
    int Finish();

    // Takes the file away again, which was created here.
    void Remove();

private:
    intptr_t handle_ = -1;
    std::string path_;
};

// A file, or on Linux a disk too, whose bytes are those of a disk.
class RawCopy {
public:
    RawCopy() = default;
    RawCopy(const RawCopy&) = delete;
    RawCopy& operator=(const RawCopy&) = delete;
    ~RawCopy();

    int Open(const std::string& path);

    // Whether all of the bytes could be read; they may be beyond the end.
    bool Read(uint64_t offset, void* buffer, size_t length) const;

private:
    intptr_t handle_ = -1;
};

} // namespace vrnx_cli
