// Opening, transfers and all else that goes by a handle or a path on the described machine: finds the object that is
// meant, and carries each call through the fault policy and the log. What the objects answer is written beside them.
#include "bench_calls.h"
#include "bench_volumes.h"
#include "call_record.h"
#include "machine.h"
#include "open_objects.h"
#include "real_calls.h"
#include "text.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

using namespace vornix::bench;

namespace {

// What a handle of the program stands for once it was closed.
class ClosedObject final : public OpenObject {
public:
    ClosedObject() : OpenObject(ERROR_INVALID_HANDLE) {}

    Outcome Close() override { return FailWith(ERROR_INVALID_HANDLE); }
};

bool StartsWithoutCase(std::string_view text, std::string_view start) {
    const auto fold = [](char letter) { return letter >= 'A' && letter <= 'Z' ? letter | 0x20 : letter; };
    return text.size() >= start.size() &&
           std::equal(start.begin(), start.end(), text.begin(), [&](char a, char b) { return fold(a) == fold(b); });
}

// The disk whose number is written behind "\\.\PhysicalDrive"; null if there is none. A number is written in one way
// only.
Disk* FindDiskByDigits(Machine& machine, std::string_view digits) {
    for (const auto& [number, disk] : machine.Disks) {
        if (std::to_string(number) == digits) {
            return disk.get();
        }
    }
    return nullptr;
}

// An open of a name in the device folder. Whatever the description does not list is not there.
OpenOutcome OpenDevice(Machine& machine, const OpenRequest& request) {
    constexpr std::string_view diskPrefix = "\\\\.\\PhysicalDrive";
    const std::string_view path = request.Path;
    if (StartsWithoutCase(path, diskPrefix)) {
        Disk* const disk = FindDiskByDigits(machine, path.substr(diskPrefix.size()));
        return disk == nullptr ? RefuseOpen(ERROR_FILE_NOT_FOUND) : disk->Open(request);
    }
    if (StartsWithoutCase(path, "\\\\.\\C:") && path.size() == 6 && machine.Description.SystemVolume) {
        return OpenVolume(*machine.Description.SystemVolume);
    }
    if (StartsWithoutCase(path, "\\\\.\\Wendrel") && path.size() == 11 && machine.ChangeTracker != nullptr) {
        return machine.ChangeTracker->Open(request);
    }
    return RefuseOpen(ERROR_FILE_NOT_FOUND);
}

// Finds what a path names: a device of the described machine, else a file of the host.
OpenOutcome OpenPath(Machine& machine, const OpenRequest& request) {
    const std::string_view path = request.Path;
    const VolumeDescription* const volume = FindVolumeByDevice(machine.Description, request.Path);
    const std::shared_ptr<Snapshot> snapshot =
        machine.Shadows == nullptr ? nullptr : machine.Shadows->FindByDevice(request.Path);
    const bool inDeviceFolder = path.starts_with("\\\\.\\");
    // Names that only devices have, so that one which the machine lacks is not looked for among the host's.
    const bool deviceName = StartsWithoutCase(path, "\\\\?\\Volume{") || StartsWithoutCase(path, "\\\\?\\GLOBALROOT\\");
    if (volume == nullptr && snapshot == nullptr && !inDeviceFolder && !deviceName) {
        return OpenHostFile(request);
    }
    RequireKnownDeviceOpen(request);
    OpenOutcome outcome = RefuseOpen(ERROR_FILE_NOT_FOUND);
    if (snapshot != nullptr) {
        outcome = OpenShadowDevice(snapshot, request);
    } else if (volume != nullptr) {
        outcome = volume->OpenError != 0 ? RefuseOpen(volume->OpenError) : OpenVolume(volume->Extents);
    } else if (inDeviceFolder) {
        outcome = OpenDevice(machine, request);
    }
    if (outcome.Result.Ok && request.Disposition != OPEN_EXISTING) {
        // A device is there or not; nobody makes one by opening it.
        (void)outcome.Object->Close();
        return RefuseOpen(ERROR_INVALID_PARAMETER);
    }
    return outcome;
}

// Null for a handle that the program did not get from the machine; its calls go straight on to the host.
OpenHandle* FindHandle(HANDLE handle) {
    Machine* const machine = CurrentMachine();
    return machine == nullptr ? nullptr : machine->Handles.Find(handle);
}

void AddHandle(CallRecord& call, const OpenHandle& handle) {
    call.Add("handle", handle.Number);
    call.Add("path", handle.Path);
}

void RequireSynchronous(const char* name, const OVERLAPPED* overlapped) {
    if (overlapped != nullptr) {
        EndUnsupported(std::string(name) + " with an OVERLAPPED");
    }
}

// Carries out a ReadFile or a WriteFile as far as the fault that is due lets it; transfer(count) moves the bytes.
template <typename Transfer>
TransferOutcome TransferUnderFault(const FaultEffect& effect, DWORD length, Transfer transfer) {
    if (effect.Error && !effect.Transferred) {
        return {.Result = FailWith(*effect.Error)};
    }
    TransferOutcome outcome = transfer(std::min<DWORD>(length, effect.Transferred.value_or(length)));
    if (effect.Kill) {
        EndKilled();
    }
    if (effect.Error && outcome.Result.Ok) {
        outcome.Result = FailWith(*effect.Error);
    }
    return outcome;
}

BOOL FinishTransfer(CallRecord& call, DWORD length, const TransferOutcome& outcome, LPDWORD transferred) {
    if (transferred != nullptr) {
        *transferred = outcome.Transferred;
    }
    call.Add("length", length);
    call.Add("transferred", outcome.Transferred);
    return call.FinishWithOutcome(outcome.Result);
}

} // namespace

HANDLE WINAPI BenchCreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                               DWORD disposition, DWORD flags, HANDLE templateFile) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealCreateFileW(path, access, share, security, disposition, flags, templateFile);
    }
    const OpenRequest request = {.WidePath = path,
                                 .Path = Utf8FromWide(path),
                                 .Access = access,
                                 .Share = share,
                                 .Security = security,
                                 .Disposition = disposition,
                                 .Flags = flags,
                                 .TemplateFile = templateFile};
    CallRecord call("CreateFileW", {request.Path});
    call.Add("path", request.Path);
    call.AddCode("access", access);
    call.AddCode("share", share);
    call.Add("disposition", disposition);
    call.AddCode("flags", flags);
    OpenOutcome outcome = call.Effect().Error ? RefuseOpen(*call.Effect().Error) : OpenPath(*machine, request);
    HANDLE handle = INVALID_HANDLE_VALUE;
    if (outcome.Result.Ok) {
        handle = machine->Handles.Add(request.Path, std::move(outcome.Object));
        call.Add("handle", machine->Handles.LastNumber());
    }
    call.FinishWithOutcome(outcome.Result);
    return handle;
}

BOOL WINAPI BenchReadFile(HANDLE file, LPVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED overlapped) {
    OpenHandle* const handle = FindHandle(file);
    if (handle == nullptr) {
        return RealReadFile(file, buffer, length, transferred, overlapped);
    }
    RequireSynchronous("ReadFile", overlapped);
    CallRecord call("ReadFile", {handle->Path});
    AddHandle(call, *handle);
    call.Add("offset", handle->Object->Position());
    const TransferOutcome outcome = TransferUnderFault(
        call.Effect(), length, [&](DWORD count) { return handle->Object->Read(buffer, length, count); });
    if (call.Effect().Flip && *call.Effect().Flip < outcome.Transferred) {
        auto& flipped = static_cast<std::uint8_t*>(buffer)[*call.Effect().Flip];
        flipped = static_cast<std::uint8_t>(~flipped);
    }
    return FinishTransfer(call, length, outcome, transferred);
}

BOOL WINAPI BenchWriteFile(HANDLE file, LPCVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED overlapped) {
    OpenHandle* const handle = FindHandle(file);
    if (handle == nullptr) {
        return RealWriteFile(file, buffer, length, transferred, overlapped);
    }
    RequireSynchronous("WriteFile", overlapped);
    CallRecord call("WriteFile", {handle->Path});
    AddHandle(call, *handle);
    call.Add("offset", handle->Object->Position());
    const TransferOutcome outcome = TransferUnderFault(
        call.Effect(), length, [&](DWORD count) { return handle->Object->Write(buffer, length, count); });
    return FinishTransfer(call, length, outcome, transferred);
}

BOOL WINAPI BenchSetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER newPosition, DWORD method) {
    OpenHandle* const handle = FindHandle(file);
    if (handle == nullptr) {
        return RealSetFilePointerEx(file, distance, newPosition, method);
    }
    CallRecord call("SetFilePointerEx", {handle->Path});
    AddHandle(call, *handle);
    const Outcome outcome =
        call.Effect().Error ? FailWith(*call.Effect().Error) : handle->Object->Seek(distance.QuadPart, method);
    if (outcome.Ok) {
        call.Add("offset", handle->Object->Position());
        if (newPosition != nullptr) {
            newPosition->QuadPart = static_cast<LONGLONG>(handle->Object->Position());
        }
    } else {
        // Where the program wanted to go, since it got nowhere.
        call.Add("offset", distance.QuadPart);
    }
    return call.FinishWithOutcome(outcome);
}

BOOL WINAPI BenchGetFileSizeEx(HANDLE file, PLARGE_INTEGER size) {
    OpenHandle* const handle = FindHandle(file);
    if (handle == nullptr) {
        return RealGetFileSizeEx(file, size);
    }
    CallRecord call("GetFileSizeEx", {handle->Path});
    AddHandle(call, *handle);
    std::uint64_t found = 0;
    const Outcome outcome = call.Effect().Error ? FailWith(*call.Effect().Error) : handle->Object->FindSize(found);
    if (outcome.Ok) {
        size->QuadPart = static_cast<LONGLONG>(found);
        call.Add("size", found);
    }
    return call.FinishWithOutcome(outcome);
}

BOOL WINAPI BenchDeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                                 LPDWORD returned, LPOVERLAPPED overlapped) {
    OpenHandle* const handle = FindHandle(device);
    if (handle == nullptr) {
        return RealDeviceIoControl(device, code, in, inLength, out, outLength, returned, overlapped);
    }
    RequireSynchronous("DeviceIoControl", overlapped);
    CallRecord call("DeviceIoControl", {handle->Path});
    AddHandle(call, *handle);
    call.AddCode("code", code);
    call.Add("in", inLength);
    call.Add("out", outLength);
    DWORD count = 0;
    const ControlRequest request = {.Code = code, .In = in, .InLength = inLength, .Out = out, .OutLength = outLength};
    const Outcome outcome =
        call.Effect().Error ? FailWith(*call.Effect().Error) : handle->Object->Control(request, count);
    if (returned != nullptr) {
        *returned = count;
    }
    call.Add("returned", count);
    return call.FinishWithOutcome(outcome);
}

BOOL WINAPI BenchCloseHandle(HANDLE handle) {
    OpenHandle* const standing = FindHandle(handle);
    if (standing == nullptr) {
        return RealCloseHandle(handle);
    }
    CallRecord call("CloseHandle", {standing->Path});
    AddHandle(call, *standing);
    const Outcome outcome = call.Effect().Error ? FailWith(*call.Effect().Error) : standing->Object->Close();
    if (outcome.Ok) {
        standing->Object = std::make_unique<ClosedObject>();
    }
    return call.FinishWithOutcome(outcome);
}

DWORD WINAPI BenchGetFileAttributesA(LPCSTR path) {
    if (CurrentMachine() == nullptr) {
        return RealGetFileAttributesA(path);
    }
    const std::string name = Utf8FromNarrow(path);
    CallRecord call("GetFileAttributesA", {name});
    call.Add("path", name);
    if (call.Effect().Error) {
        call.FinishWithOutcome(FailWith(*call.Effect().Error));
        return INVALID_FILE_ATTRIBUTES;
    }
    const DWORD attributes = RealGetFileAttributesA(path);
    call.FinishWithOutcome({.Ok = attributes != INVALID_FILE_ATTRIBUTES, .LastError = GetLastError()});
    return attributes;
}

BOOL WINAPI BenchMoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
    if (CurrentMachine() == nullptr) {
        return RealMoveFileExW(from, to, flags);
    }
    const std::string oldName = Utf8FromWide(from);
    const std::string newName = Utf8FromWide(to);
    CallRecord call("MoveFileExW", {oldName, newName});
    call.Add("from", oldName);
    call.Add("to", newName);
    call.AddCode("flags", flags);
    if (call.Effect().Error) {
        return call.FinishWithOutcome(FailWith(*call.Effect().Error));
    }
    const bool ok = RealMoveFileExW(from, to, flags) != FALSE;
    return call.FinishWithOutcome({.Ok = ok, .LastError = GetLastError()});
}
