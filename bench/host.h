// What the described machine needs of the system it runs on, beside the real calls: files behind disks, logs and
// descriptions, the end of the process, and text of the system's own. host_linux.cpp and host_windows.cpp each answer
// all of it. Nothing here goes through the calls that the machine swaps, so none of it is logged or failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace vornix::bench {

// How far a transfer on a host file came. Error is 0, or the Windows code of the host's failure.
struct HostTransfer {
    std::uint32_t Error = 0;
    std::size_t Count = 0;
};

// An open file of the host, read and written at offsets in bytes. Writes reach the host at once: there is no buffer
// that a killed process could lose.
class HostFile {
public:
    enum class Mode {
        Read,
        ReadWrite, // an existing file
        Create,    // an existing file is emptied
    };

    // Null if the file cannot be opened. Paths are UTF-8 on Windows and bytes as they stand on Linux, here and below.
    static std::unique_ptr<HostFile> Open(const std::string& path, Mode mode);

    virtual ~HostFile() = default;

    // Fewer bytes than asked for, without an error, at the end of the file.
    virtual HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length) = 0;

    virtual HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) = 0;

    // Nothing if the host does not tell.
    virtual std::optional<std::uint64_t> FindSize() = 0;
};

// Before the first call of the program: settles what the host does otherwise for a described machine.
void PrepareHost();

// `name` as seen from `folder`; an absolute name stands as it is.
std::string JoinHostPath(const std::string& folder, const std::string& name);

// A narrow string of the program or of the command line as UTF-8.
std::string Utf8FromNarrow(const char* text);

// Ends the process on the spot with this status: no exit routine runs and nothing is flushed.
[[noreturn]] void EndProcess(unsigned int status);

// Raises what reaching a missing delay-loaded library raises.
[[noreturn]] void RaiseMissingLibrary();

// Ends the process, after a line on standard error that names what was asked for and is not imitated. An imitation that
// answered success instead would let a wrong program pass.
[[noreturn]] void EndUnsupported(const std::string& what);

} // namespace vornix::bench
