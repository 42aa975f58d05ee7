// The snapshot session: preparing the writers, making one set, opening its devices, ending it.
#include "snapshot/snapshot_session.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <objbase.h>
#include <oleauto.h>
#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include "cli/progress.h"
#include "snapshot/create_components_guarded.h"
#include "snapshot/volume_extents.h"

namespace vornix {

namespace {

// The one process-wide object, since the exit routine has to reach it without arguments.
struct SnapshotSession {
    IVssBackupComponents* Components = nullptr; // null when no session is open
    VSS_ID SnapshotSetId{};
    bool ComInitialized = false;     // CoUninitialize is still owed
    bool SnapshotSetCreated = false; // a set exists that has to be ended and deleted
    std::vector<HANDLE> ShadowHandles;
    bool ExitHookRegistered = false; // stays set for the life of the process
};

SnapshotSession session;

// A volume that was added to the snapshot set.
struct SnapshotVolume {
    VolumeExtent Extent;
    VSS_ID SnapshotId;
};

const VSS_ID nullId{}; // as a provider: the system's choice

using AsyncMethod = HRESULT (STDMETHODCALLTYPE IVssBackupComponents::*)(IVssAsync**);

// An HRESULT as the printf formats of the messages want it.
unsigned long Printable(HRESULT status) {
    return static_cast<unsigned long>(static_cast<uint32_t>(status));
}

// The service takes names as pointers to non-const text and leaves them as they are.
VSS_PWSZ AsInput(const std::wstring& text) {
    return const_cast<VSS_PWSZ>(text.c_str());
}

// Waits without limit for an asynchronous step to end, releases its object and tells whether the step succeeded.
bool WaitForAsync(IVssAsync* async, const char* step) {
    const HRESULT waited = async->Wait(0xFFFFFFFF);
    HRESULT status = E_FAIL;
    const HRESULT queried = async->QueryStatus(&status, nullptr);
    async->Release();
    if (FAILED(waited) || FAILED(queried) || status != VSS_S_ASYNC_FINISHED) {
        std::printf("    %s did not complete successfully (wait=0x%08lX, status=0x%08lX)\n", step, Printable(waited),
                    Printable(status));
        return false;
    }
    return true;
}

// Starts an asynchronous step and waits for it. `status` receives the result of the call itself, which is a success
// value where the step failed later on; messages show it as it is.
bool RunAsyncStep(AsyncMethod method, const char* step, HRESULT& status) {
    IVssAsync* async = nullptr;
    status = (session.Components->*method)(&async);
    return !FAILED(status) && async != nullptr && WaitForAsync(async, step);
}

void EndSessionAtExit() {
    EndSnapshotSession(false);
}

// The end of every attempt that came to nothing: says why and gives the list of no ranges.
std::vector<SnapshotRange> AbandonSnapshots(const char* reason, HRESULT status) {
    std::printf("  --vss: %s (0x%08lX) - reading live instead (crash-consistent only).\n", reason, Printable(status));
    EndSnapshotSession(false);
    return {};
}

struct SessionStep {
    const char* Failure; // null when the step succeeded
    HRESULT Status;
};

constexpr SessionStep stepSucceeded{nullptr, S_OK};

// From COM to a prepared backup whose writers have told about themselves.
SessionStep PrepareBackup() {
    HRESULT status = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(status)) {
        return {"CoInitializeEx failed", status};
    }
    session.ComInitialized = true;
    status = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                  RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    // A process whose security was settled already goes on with what it has.
    if (FAILED(status) && status != RPC_E_TOO_LATE) {
        return {"CoInitializeSecurity failed", status};
    }
    status = CreateComponentsGuarded(&session.Components);
    if (FAILED(status) || session.Components == nullptr) {
        return {"VSS is not available here (CreateVssBackupComponents)", status};
    }
    status = session.Components->InitializeForBackup(nullptr);
    if (FAILED(status)) {
        return {"InitializeForBackup failed", status};
    }
    status = session.Components->SetContext(VSS_CTX_BACKUP);
    if (FAILED(status)) {
        return {"SetContext failed", status};
    }
    status = session.Components->SetBackupState(false, true, VSS_BT_COPY, false);
    if (FAILED(status)) {
        return {"SetBackupState failed", status};
    }
    std::printf("  --vss: gathering writer metadata...\n");
    if (!RunAsyncStep(&IVssBackupComponents::GatherWriterMetadata, "GatherWriterMetadata", status)) {
        return {"GatherWriterMetadata failed", status};
    }
    status = session.Components->StartSnapshotSet(&session.SnapshotSetId);
    if (FAILED(status)) {
        return {"StartSnapshotSet failed", status};
    }
    return stepSucceeded;
}

// Adds every volume of the disk that can be snapshotted to the set; each other one is read live.
std::vector<SnapshotVolume> AddVolumes(uint32_t disk) {
    std::vector<SnapshotVolume> volumes;
    for (const VolumeExtent& extent : FindVolumesOnDisk(disk)) {
        BOOL supported = FALSE;
        const HRESULT asked = session.Components->IsVolumeSupported(nullId, AsInput(extent.VolumeName), &supported);
        if (FAILED(asked) || !supported) {
            std::printf("  --vss: volume %ls can't be snapshotted (removable/unsupported) - it will be read live.\n",
                        extent.DevicePath.c_str());
            continue;
        }
        VSS_ID snapshotId{};
        const HRESULT added = session.Components->AddToSnapshotSet(AsInput(extent.VolumeName), nullId, &snapshotId);
        if (FAILED(added)) {
            std::printf("  --vss: could not add volume %ls to the snapshot set (0x%08lX) - read live.\n",
                        extent.DevicePath.c_str(), Printable(added));
            continue;
        }
        volumes.push_back({extent, snapshotId});
        std::printf("  --vss: snapshotting volume %ls (disk offset %llu, %.2f GiB) ...\n", extent.DevicePath.c_str(),
                    static_cast<unsigned long long>(extent.Start), BytesToGiB(extent.End - extent.Start));
    }
    return volumes;
}

SessionStep TakeSnapshot() {
    HRESULT status = S_OK;
    std::printf("  --vss: asking writers to prepare and freeze...\n");
    if (!RunAsyncStep(&IVssBackupComponents::PrepareForBackup, "PrepareForBackup", status)) {
        return {"PrepareForBackup failed", status};
    }
    if (!RunAsyncStep(&IVssBackupComponents::DoSnapshotSet, "DoSnapshotSet", status)) {
        return {"DoSnapshotSet failed", status};
    }
    session.SnapshotSetCreated = true;
    return stepSucceeded;
}

// Names every writer that failed. A failed writer does not stop the capture: its volume is frozen all the same, only
// without that application's help.
void ReportWriterStatus() {
    HRESULT status = S_OK;
    if (!RunAsyncStep(&IVssBackupComponents::GatherWriterStatus, "GatherWriterStatus", status)) {
        return;
    }
    UINT count = 0;
    if (FAILED(session.Components->GetWriterStatusCount(&count))) {
        return;
    }
    unsigned failed = 0;
    for (UINT index = 0; index < count; ++index) {
        VSS_ID instanceId{};
        VSS_ID writerId{};
        BSTR name = nullptr;
        VSS_WRITER_STATE state = VSS_WS_UNKNOWN;
        HRESULT failure = S_OK;
        if (FAILED(session.Components->GetWriterStatus(index, &instanceId, &writerId, &name, &state, &failure))) {
            continue;
        }
        // As a number: a service of another version may report a state that the type has no value for.
        static_assert(sizeof(state) == sizeof(int));
        int stateNumber = 0;
        std::memcpy(&stateNumber, &state, sizeof(stateNumber));
        if (stateNumber >= VSS_WS_FAILED_AT_IDENTIFY && stateNumber <= VSS_WS_FAILED_AT_BACKUPSHUTDOWN) {
            std::printf("    WARNING: VSS writer '%ls' failed (state %d, hr=0x%08lX) - that application's data is "
                        "crash-consistent only.\n",
                        name == nullptr ? L"?" : name, stateNumber, Printable(failure));
            ++failed;
        }
        SysFreeString(name);
    }
    session.Components->FreeWriterStatus();
    std::printf("  --vss: %u VSS writer(s) reported, %u failed.\n", count, failed);
}

// The path under which a shadow device opens: the service names it as the object manager does.
std::wstring ShadowDevicePath(std::wstring deviceObject) {
    const std::wstring objectPrefix = L"\\Device\\";
    if (deviceObject.compare(0, objectPrefix.size(), objectPrefix) == 0) {
        deviceObject.insert(0, L"\\\\?\\GLOBALROOT");
    }
    return deviceObject;
}

// Opens the shadow devices of the set; a volume whose device does not open is read live.
std::vector<SnapshotRange> OpenShadowDevices(const std::vector<SnapshotVolume>& volumes) {
    std::vector<SnapshotRange> ranges;
    for (const SnapshotVolume& volume : volumes) {
        VSS_SNAPSHOT_PROP properties{};
        const HRESULT status = session.Components->GetSnapshotProperties(volume.SnapshotId, &properties);
        if (FAILED(status)) {
            std::printf("  --vss: GetSnapshotProperties failed for %ls (0x%08lX) - read live.\n",
                        volume.Extent.DevicePath.c_str(), Printable(status));
            continue;
        }
        const WCHAR* deviceObject = properties.m_pwszSnapshotDeviceObject;
        const std::wstring path = ShadowDevicePath(deviceObject == nullptr ? L"" : deviceObject);
        VssFreeSnapshotProperties(&properties);
        const HANDLE device = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                          FILE_FLAG_NO_BUFFERING, nullptr);
        if (device == INVALID_HANDLE_VALUE) {
            const unsigned long lastError = GetLastError();
            std::printf("  --vss: could not open shadow device %ls (GetLastError=%lu) - read live.\n", path.c_str(),
                        lastError);
            continue;
        }
        session.ShadowHandles.push_back(device);
        ranges.push_back({volume.Extent.Start, volume.Extent.End, device});
    }
    return ranges;
}

// Tells the writers how the backup went and removes the set.
void EndSnapshotSet(bool completed) {
    if (!completed) {
        session.Components->AbortBackup();
    } else {
        IVssAsync* async = nullptr;
        if (FAILED(session.Components->BackupComplete(&async))) {
            session.Components->AbortBackup();
        } else if (async != nullptr) {
            WaitForAsync(async, "BackupComplete"); // says so itself where it fails; the image is whole either way
        }
    }
    LONG deleted = 0;
    VSS_ID notDeleted{};
    const HRESULT status = session.Components->DeleteSnapshots(session.SnapshotSetId, VSS_OBJECT_SNAPSHOT_SET, TRUE,
                                                               &deleted, &notDeleted);
    // A set that is gone already is what was wanted.
    if (FAILED(status) && status != VSS_E_OBJECT_NOT_FOUND) {
        std::printf("  --vss: WARNING: could not delete the snapshot set (0x%08lX) - it is still listed under "
                    "Win32_ShadowCopy and must be removed by hand.\n",
                    Printable(status));
    }
}

} // namespace

std::vector<SnapshotRange> BeginSnapshotSession(uint32_t disk) {
    if (!session.ExitHookRegistered) {
        // A fatal end of the capture leaves through the ordinary exit, and the set must not outlive it.
        std::atexit(EndSessionAtExit);
        session.ExitHookRegistered = true;
    }
    const SessionStep prepared = PrepareBackup();
    if (prepared.Failure != nullptr) {
        return AbandonSnapshots(prepared.Failure, prepared.Status);
    }
    const std::vector<SnapshotVolume> volumes = AddVolumes(disk);
    if (volumes.empty()) {
        // No call failed, so there is no status to show; the 1 stands for one.
        return AbandonSnapshots("no volume on this disk could be snapshotted", 1);
    }
    const SessionStep taken = TakeSnapshot();
    if (taken.Failure != nullptr) {
        return AbandonSnapshots(taken.Failure, taken.Status);
    }
    ReportWriterStatus();
    std::vector<SnapshotRange> ranges = OpenShadowDevices(volumes);
    std::sort(ranges.begin(), ranges.end(),
              [](const SnapshotRange& a, const SnapshotRange& b) { return a.Start < b.Start; });
    std::printf("  --vss: %zu volume(s) snapshotted via IVssBackupComponents; anything outside those ranges (partition "
                "tables, unpartitioned space) reads live.\n",
                ranges.size());
    return ranges;
}

void EndSnapshotSession(bool completed) {
    // The shadow devices have to be closed before the set is ended.
    for (const HANDLE device : session.ShadowHandles) {
        CloseHandle(device);
    }
    session.ShadowHandles.clear();
    if (session.Components != nullptr) {
        // Without a set there is nothing to abort or delete, however far the preparation came: Release closes that.
        if (session.SnapshotSetCreated) {
            EndSnapshotSet(completed);
        }
        session.Components->Release();
        session.Components = nullptr;
        session.SnapshotSetCreated = false;
    }
    if (session.ComInitialized) {
        CoUninitialize();
        session.ComInitialized = false;
    }
}

} // namespace vornix
