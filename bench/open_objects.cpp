// Files of the host, sector devices, share modes and the table of handles. See open_objects.h.
#include "open_objects.h"

#include "real_calls.h"

#include <algorithm>
#include <utility>

namespace vornix::bench {

namespace {

// Far above the small multiples of four that Windows gives to the handles of the runtime's own, which reach the
// machine's CloseHandle too and have to be told from these. The steps keep the two low bits clear, as in every handle.
constexpr std::uintptr_t firstHandle = 0x7B000000;
constexpr std::uintptr_t handleStep = 4;

class HostFileObject final : public OpenObject {
public:
    explicit HostFileObject(HANDLE handle) : handle_(handle) {}

    TransferOutcome Read(void* buffer, DWORD, DWORD count) override {
        DWORD transferred = 0;
        const bool ok = RealReadFile(handle_, buffer, count, &transferred, nullptr) != FALSE;
        return Advance(ok, transferred);
    }

    TransferOutcome Write(const void* buffer, DWORD, DWORD count) override {
        DWORD transferred = 0;
        const bool ok = RealWriteFile(handle_, buffer, count, &transferred, nullptr) != FALSE;
        return Advance(ok, transferred);
    }

    Outcome Seek(std::int64_t distance, DWORD method) override {
        LARGE_INTEGER wanted;
        wanted.QuadPart = distance;
        LARGE_INTEGER reached = {};
        const bool ok = RealSetFilePointerEx(handle_, wanted, &reached, method) != FALSE;
        const Outcome outcome = {.Ok = ok, .LastError = GetLastError()};
        if (ok) {
            SetPosition(static_cast<std::uint64_t>(reached.QuadPart));
        }
        return outcome;
    }

    Outcome FindSize(std::uint64_t& size) override {
        LARGE_INTEGER found = {};
        const bool ok = RealGetFileSizeEx(handle_, &found) != FALSE;
        const Outcome outcome = {.Ok = ok, .LastError = GetLastError()};
        size = static_cast<std::uint64_t>(found.QuadPart);
        return outcome;
    }

    Outcome Control(const ControlRequest& request, DWORD& returned) override {
        const bool ok = RealDeviceIoControl(handle_, request.Code, request.In, request.InLength, request.Out,
                                            request.OutLength, &returned, nullptr) != FALSE;
        return {.Ok = ok, .LastError = GetLastError()};
    }

    Outcome Close() override {
        const bool ok = RealCloseHandle(handle_) != FALSE;
        return {.Ok = ok, .LastError = GetLastError()};
    }

private:
    TransferOutcome Advance(bool ok, DWORD transferred) {
        const Outcome outcome = {.Ok = ok, .LastError = GetLastError()};
        SetPosition(Position() + transferred);
        return {.Result = outcome, .Transferred = transferred};
    }

    // Not closed with the object: a process that ends leaves its handles to the system, and so does the machine.
    HANDLE handle_;
};

bool IsWhole(std::uint64_t value, std::uint64_t unit) {
    return value % unit == 0;
}

} // namespace

TransferOutcome OpenObject::Read(void*, DWORD, DWORD) {
    return {.Result = FailWith(refusal_)};
}

TransferOutcome OpenObject::Write(const void*, DWORD, DWORD) {
    return {.Result = FailWith(refusal_)};
}

Outcome OpenObject::Seek(std::int64_t, DWORD) {
    return FailWith(refusal_);
}

Outcome OpenObject::FindSize(std::uint64_t&) {
    return FailWith(refusal_);
}

Outcome OpenObject::Control(const ControlRequest&, DWORD&) {
    return FailWith(refusal_);
}

Outcome OpenObject::Close() {
    return {};
}

OpenOutcome OpenHostFile(const OpenRequest& request) {
    const HANDLE handle = RealCreateFileW(request.WidePath, request.Access, request.Share, request.Security,
                                          request.Disposition, request.Flags, request.TemplateFile);
    const DWORD error = GetLastError();
    if (handle == INVALID_HANDLE_VALUE) {
        return RefuseOpen(error);
    }
    return {.Object = std::make_unique<HostFileObject>(handle), .Result = {.Ok = true, .LastError = error}};
}

void RequireKnownDeviceOpen(const OpenRequest& request) {
    constexpr DWORD knownAccess = GENERIC_READ | GENERIC_WRITE;
    constexpr DWORD knownShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
    // What a device open may carry without another meaning than it has for these devices: their transfers reach the
    // host at once, in whatever order they come.
    constexpr DWORD knownFlags =
        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_NO_BUFFERING | FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_WRITE_THROUGH;
    if ((request.Access & ~knownAccess) != 0 || (request.Share & ~knownShare) != 0 ||
        (request.Flags & ~knownFlags) != 0 || request.TemplateFile != nullptr) {
        EndUnsupported("an open of the device " + request.Path + " with this access, share mode, flag or template");
    }
}

bool ShareLedger::Enter(DWORD access, DWORD share) {
    const auto refuses = [](DWORD standing, DWORD wanted) {
        return ((wanted & GENERIC_READ) != 0 && (standing & FILE_SHARE_READ) == 0) ||
               ((wanted & GENERIC_WRITE) != 0 && (standing & FILE_SHARE_WRITE) == 0);
    };
    for (const Entry& entry : entries_) {
        if (refuses(entry.Share, access) || refuses(share, entry.Access)) {
            return false;
        }
    }
    entries_.push_back({.Access = access, .Share = share});
    return true;
}

void ShareLedger::Leave(DWORD access, DWORD share) {
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& entry) { return entry.Access == access && entry.Share == share; });
    if (found != entries_.end()) {
        entries_.erase(found);
    }
}

SectorObject::SectorObject(const OpenRequest& request, std::uint64_t length, std::uint32_t sectorSize)
    : access_(request.Access), unbuffered_((request.Flags & FILE_FLAG_NO_BUFFERING) != 0), length_(length),
      sectorSize_(sectorSize) {}

template <typename Transfer>
TransferOutcome SectorObject::TransferWithin(DWORD right, const void* buffer, DWORD requested, DWORD count,
                                             Transfer transfer) {
    if ((access_ & right) == 0) {
        return {.Result = FailWith(ERROR_ACCESS_DENIED)};
    }
    if (unbuffered_) {
        // An address cannot be a multiple of a size that is no power of two in any sense that hardware knows; such
        // disks ask for the alignment of the common sector.
        const bool powerOfTwo = (sectorSize_ & (sectorSize_ - 1)) == 0;
        const std::uint32_t addressUnit = powerOfTwo ? sectorSize_ : 512;
        if (!IsWhole(Position(), sectorSize_) || !IsWhole(requested, sectorSize_) ||
            !IsWhole(reinterpret_cast<std::uintptr_t>(buffer), addressUnit)) {
            return {.Result = FailWith(ERROR_INVALID_PARAMETER)};
        }
    }
    if (requested == 0) {
        return {};
    }
    if (Position() >= length_) {
        return {.Result = FailWith(ERROR_SECTOR_NOT_FOUND)};
    }
    const auto within = static_cast<std::size_t>(std::min<std::uint64_t>(count, length_ - Position()));
    const HostTransfer done = transfer(Position(), within);
    SetPosition(Position() + done.Count);
    return {.Result = done.Error == 0 ? Outcome() : FailWith(done.Error),
            .Transferred = static_cast<DWORD>(done.Count)};
}

TransferOutcome SectorObject::Read(void* buffer, DWORD requested, DWORD count) {
    return TransferWithin(GENERIC_READ, buffer, requested, count,
                          [&](std::uint64_t offset, std::size_t length) { return ReadAt(offset, buffer, length); });
}

TransferOutcome SectorObject::Write(const void* buffer, DWORD requested, DWORD count) {
    return TransferWithin(GENERIC_WRITE, buffer, requested, count,
                          [&](std::uint64_t offset, std::size_t length) { return WriteAt(offset, buffer, length); });
}

Outcome SectorObject::Seek(std::int64_t distance, DWORD method) {
    if (method != FILE_BEGIN && method != FILE_CURRENT) {
        EndUnsupported("a seek on a device that is not from its beginning or the current position");
    }
    const std::int64_t base = method == FILE_BEGIN ? 0 : static_cast<std::int64_t>(Position());
    if (distance < 0 && base + distance < 0) {
        return FailWith(ERROR_NEGATIVE_SEEK);
    }
    SetPosition(static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(distance));
    return {};
}

HANDLE HandleTable::Add(const std::string& path, std::unique_ptr<OpenObject> object) {
    handles_.push_back(std::make_unique<OpenHandle>(OpenHandle{handles_.size() + 1, path, std::move(object)}));
    return reinterpret_cast<HANDLE>(firstHandle + handleStep * (handles_.size() - 1));
}

OpenHandle* HandleTable::Find(HANDLE handle) {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    if (value < firstHandle || !IsWhole(value - firstHandle, handleStep)) {
        return nullptr;
    }
    const std::uintptr_t index = (value - firstHandle) / handleStep;
    return index < handles_.size() ? handles_[index].get() : nullptr;
}

} // namespace vornix::bench
