// What a handle that the program got from CreateFileW stands for, and the machine's table of such handles. The kinds of
// device define objects of their own beside their devices; files of the host and what all sector devices share are
// here.
#pragma once

#include "call_record.h"
#include "host.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vornix::bench {

// The arguments of a CreateFileW. Path is the UTF-8 of WidePath.
struct OpenRequest {
    LPCWSTR WidePath;
    std::string Path;
    DWORD Access;
    DWORD Share;
    LPSECURITY_ATTRIBUTES Security;
    DWORD Disposition;
    DWORD Flags;
    HANDLE TemplateFile;
};

// The arguments of a DeviceIoControl.
struct ControlRequest {
    DWORD Code;
    LPVOID In;
    DWORD InLength;
    LPVOID Out;
    DWORD OutLength;
};

struct TransferOutcome {
    Outcome Result;
    DWORD Transferred = 0;
};

class OpenObject {
public:
    // `refusal` is the last error of every operation that an object does not define.
    explicit OpenObject(DWORD refusal = ERROR_INVALID_FUNCTION) : refusal_(refusal) {}
    OpenObject(const OpenObject&) = delete;
    OpenObject& operator=(const OpenObject&) = delete;
    virtual ~OpenObject() = default;

    // Where the next transfer begins, in bytes.
    std::uint64_t Position() const { return position_; }

    // The program asked for `requested` bytes; `count`, never more, are to be transferred. The two differ where a fault
    // cuts the transfer; what is demanded of a transfer is demanded of what was requested.
    virtual TransferOutcome Read(void* buffer, DWORD requested, DWORD count);
    virtual TransferOutcome Write(const void* buffer, DWORD requested, DWORD count);

    virtual Outcome Seek(std::int64_t distance, DWORD method);
    virtual Outcome FindSize(std::uint64_t& size);
    virtual Outcome Control(const ControlRequest& request, DWORD& returned);
    virtual Outcome Close();

protected:
    void SetPosition(std::uint64_t position) { position_ = position; }

private:
    DWORD refusal_;
    std::uint64_t position_ = 0;
};

// What an open gives: the object, or the last error of the failure.
struct OpenOutcome {
    std::unique_ptr<OpenObject> Object;
    Outcome Result;
};

inline OpenOutcome RefuseOpen(DWORD error) {
    return {.Object = nullptr, .Result = FailWith(error)};
}

// A file of the host, through the host's own calls, which bring their share modes and last errors along.
OpenOutcome OpenHostFile(const OpenRequest& request);

// Holds an open of a device to access, share modes and flags that mean nothing to it or are imitated; any other ends
// the process.
void RequireKnownDeviceOpen(const OpenRequest& request);

// The opens that stand on one device, held against each other's share modes.
class ShareLedger {
public:
    // False, and nothing entered, where the open conflicts with one that stands.
    bool Enter(DWORD access, DWORD share);

    // Takes out an entry of these arguments.
    void Leave(DWORD access, DWORD share);

private:
    struct Entry {
        DWORD Access;
        DWORD Share;
    };

    std::vector<Entry> entries_;
};

// A device that is read and written by sectors, at a position of its own.
class SectorObject : public OpenObject {
public:
    // `length` and `sectorSize` in bytes.
    SectorObject(const OpenRequest& request, std::uint64_t length, std::uint32_t sectorSize);

    TransferOutcome Read(void* buffer, DWORD requested, DWORD count) final;
    TransferOutcome Write(const void* buffer, DWORD requested, DWORD count) final;
    Outcome Seek(std::int64_t distance, DWORD method) final;

protected:
    // Transfers within the length of the device; short without an error where the bytes behind the device end.
    virtual HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length) = 0;
    virtual HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) = 0;

private:
    // The rules for a transfer of either direction; transfer(offset, count) carries out the part that they leave.
    template <typename Transfer>
    TransferOutcome TransferWithin(DWORD right, const void* buffer, DWORD requested, DWORD count, Transfer transfer);

    DWORD access_;
    bool unbuffered_;
    std::uint64_t length_;
    std::uint32_t sectorSize_;
};

// A handle of the program. A closed one stays in the table, with an object that refuses everything, so that its use
// after the close shows in the log.
struct OpenHandle {
    std::uint64_t Number; // as in the log; never used again in a run
    std::string Path;
    std::unique_ptr<OpenObject> Object;
};

class HandleTable {
public:
    // Gives the handle that the program is to hold. It is no handle of the host.
    HANDLE Add(const std::string& path, std::unique_ptr<OpenObject> object);

    // Null for a handle that is not from here.
    OpenHandle* Find(HANDLE handle);

    std::uint64_t LastNumber() const { return handles_.size(); }

private:
    std::vector<std::unique_ptr<OpenHandle>> handles_;
};

} // namespace vornix::bench
