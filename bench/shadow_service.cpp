// Imitates the Volume Shadow Copy service. See shadow_service.h.
#include "shadow_service.h"

#include "bench_volumes.h"
#include "call_record.h"
#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

// The published interfaces have no virtual destructor: an object ends with its last Release and never through a pointer
// to its interface. Both classes below are final and destroy themselves as what they are.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace vornix::bench {

namespace {

// Published failures of the service that not every SDK header in use declares.
constexpr auto providerNotRegistered = static_cast<HRESULT>(0x80042304u);
constexpr auto volumeNotSupported = static_cast<HRESULT>(0x8004230Cu);
constexpr auto objectAlreadyExists = static_cast<HRESULT>(0x8004230Du);
constexpr auto unsupportedContext = static_cast<HRESULT>(0x8004231Bu);

bool IsSame(const VSS_ID& one, const VSS_ID& other) {
    return std::memcmp(&one, &other, sizeof one) == 0;
}

bool IsNull(const VSS_ID& id) {
    return IsSame(id, VSS_ID{});
}

// A string as the service hands it out; VssFreeSnapshotProperties gives it back to free().
VSS_PWSZ DuplicateText(const std::string& text) {
    const std::wstring wide = WideFromUtf8(text);
    auto* const copy = static_cast<WCHAR*>(std::malloc((wide.size() + 1) * sizeof(WCHAR)));
    if (copy != nullptr) {
        std::copy(wide.c_str(), wide.c_str() + wide.size() + 1, copy);
    }
    return copy;
}

class ShadowObject final : public SectorObject {
public:
    ShadowObject(std::shared_ptr<Snapshot> snapshot, const OpenRequest& request)
        : SectorObject(request, snapshot->Length, snapshot->SectorSize), snapshot_(std::move(snapshot)) {}

protected:
    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length) override {
        if (!snapshot_->Standing) {
            return {.Error = ERROR_DEV_NOT_EXIST};
        }
        if (snapshot_->File != nullptr) {
            return snapshot_->File->ReadAt(offset, buffer, length);
        }
        return snapshot_->Extent == nullptr ? HostTransfer() : snapshot_->Extent->ReadAt(offset, buffer, length);
    }

    HostTransfer WriteAt(std::uint64_t, const void*, std::size_t) override { return {.Error = ERROR_WRITE_PROTECT}; }

private:
    std::shared_ptr<Snapshot> snapshot_;
};

// How far a session has come. Shared with its asynchronous objects, since a step is done only when it was waited for. A
// step for which a fault answers with success counts as taken: what the session is told has happened, it may build on.
struct Progress {
    bool Initialized = false;
    bool ContextSet = false;
    bool StateSet = false;
    bool MetadataAsked = false;
    bool MetadataGathered = false;
    bool SetStarted = false;
    bool VolumeAdded = false;
    bool PrepareAsked = false;
    bool Prepared = false;
    bool SnapshotsAsked = false;
    bool SnapshotsTaken = false;
    bool StatusAsked = false;
    bool StatusGathered = false;
    bool Completed = false;
    bool CompleteAsked = false;
    bool Aborted = false;
    bool SetDeleted = false;
};

// The asynchronous result of one step. It is pending until somebody waited for its end, however long that takes: a wait
// with a limit succeeds, as the service's does when the time is over, and the step is where it was.
class AsyncStep final : public IVssAsync {
public:
    // `step` is the name of the method that gave the object; `done` is set when its end is waited for.
    AsyncStep(const char* step, std::shared_ptr<Progress> progress, bool Progress::*done)
        : step_(step), progress_(std::move(progress)), done_(done) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { EndUnsupported("IVssAsync::QueryInterface"); }
    ULONG STDMETHODCALLTYPE AddRef() override { EndUnsupported("IVssAsync::AddRef"); }
    HRESULT STDMETHODCALLTYPE Cancel() override { EndUnsupported("IVssAsync::Cancel"); }

    ULONG STDMETHODCALLTYPE Release() override {
        CallRecord call("IVssAsync::Release");
        call.Add("step", step_);
        delete this;
        call.Finish();
        return 0;
    }

    HRESULT STDMETHODCALLTYPE Wait(DWORD timeout) override {
        CallRecord call("IVssAsync::Wait");
        call.Add("step", step_);
        call.AddCode("timeout", timeout);
        const HRESULT status = call.AnswerStatus([] { return S_OK; });
        if (SUCCEEDED(status) && timeout == INFINITE) {
            finished_ = true;
            (*progress_).*done_ = true;
        }
        return status;
    }

    HRESULT STDMETHODCALLTYPE QueryStatus(HRESULT* result, INT*) override {
        CallRecord call("IVssAsync::QueryStatus");
        call.Add("step", step_);
        return call.AnswerStatus([&] {
            if (call.Effect().AsyncStatus) {
                *result = static_cast<HRESULT>(*call.Effect().AsyncStatus);
            } else {
                *result = finished_ ? VSS_S_ASYNC_FINISHED : VSS_S_ASYNC_PENDING;
            }
            return S_OK;
        });
    }

private:
    const char* step_;
    std::shared_ptr<Progress> progress_;
    bool Progress::*done_;
    bool finished_ = false;
};

} // namespace

// What a requester holds: one session of the service. Methods that no requester of this kind needs end the process and
// name themselves.
class BackupComponents final : public IVssBackupComponents {
public:
    explicit BackupComponents(ShadowService& service) : service_(service) {}

    ULONG STDMETHODCALLTYPE Release() override {
        CallRecord call("IVssBackupComponents::Release");
        // A snapshot of the backup context does not outlive the session that made it.
        ForgetSet();
        delete this;
        call.Finish();
        return 0;
    }

    HRESULT STDMETHODCALLTYPE InitializeForBackup(BSTR document) override {
        CallRecord call("IVssBackupComponents::InitializeForBackup");
        if (document != nullptr) {
            EndUnsupported("a backup that goes on from a saved document");
        }
        return AnswerStep(call, !progress_->Initialized, &Progress::Initialized);
    }

    HRESULT STDMETHODCALLTYPE SetContext(LONG context) override {
        CallRecord call("IVssBackupComponents::SetContext");
        call.Add("context", context);
        const bool inOrder =
            progress_->Initialized && !progress_->ContextSet && !progress_->MetadataAsked && !progress_->SetStarted;
        return AnswerStep(call, inOrder, &Progress::ContextSet,
                          [&] { return context == VSS_CTX_BACKUP ? S_OK : unsupportedContext; });
    }

    HRESULT STDMETHODCALLTYPE SetBackupState(boolean selectComponents, boolean bootableState, VSS_BACKUP_TYPE type,
                                             boolean partialFiles) override {
        CallRecord call("IVssBackupComponents::SetBackupState");
        call.Add("select_components", selectComponents != 0);
        call.Add("bootable_state", bootableState != 0);
        call.Add("type", static_cast<int>(type));
        call.Add("partial_files", partialFiles != 0);
        // Whole volumes are frozen here, with the state that a system boots from, for a copy that leaves no trace in
        // the writers' own records of what was backed up; nothing else is imitated.
        const bool isImitated = selectComponents == 0 && bootableState != 0 && type == VSS_BT_COPY && partialFiles == 0;
        return AnswerStep(call, progress_->Initialized && !progress_->PrepareAsked, &Progress::StateSet,
                          [&] { return isImitated ? S_OK : E_INVALIDARG; });
    }

    HRESULT STDMETHODCALLTYPE GatherWriterMetadata(IVssAsync** async) override {
        CallRecord call("IVssBackupComponents::GatherWriterMetadata");
        return AnswerAsync(call, progress_->Initialized && !progress_->MetadataAsked, &Progress::MetadataAsked,
                           {"GatherWriterMetadata", &Progress::MetadataGathered, async});
    }

    HRESULT STDMETHODCALLTYPE StartSnapshotSet(VSS_ID* setId) override {
        CallRecord call("IVssBackupComponents::StartSnapshotSet");
        return AnswerStep(call, progress_->MetadataGathered && !progress_->SetStarted, &Progress::SetStarted, [&] {
            setId_ = service_.MakeId();
            *setId = setId_;
            return S_OK;
        });
    }

    HRESULT STDMETHODCALLTYPE IsVolumeSupported(VSS_ID provider, VSS_PWSZ name, BOOL* supported) override {
        const std::string path = Utf8FromWide(name);
        CallRecord call("IVssBackupComponents::IsVolumeSupported", {path});
        call.Add("path", path);
        return call.AnswerStatus([&] {
            const VolumeDescription* volume = nullptr;
            const HRESULT status = FindVolume(provider, path, volume);
            if (SUCCEEDED(status)) {
                *supported = volume->Supported ? TRUE : FALSE;
            }
            return status;
        });
    }

    HRESULT STDMETHODCALLTYPE AddToSnapshotSet(VSS_PWSZ name, VSS_ID provider, VSS_ID* snapshotId) override {
        const std::string path = Utf8FromWide(name);
        CallRecord call("IVssBackupComponents::AddToSnapshotSet", {path});
        call.Add("path", path);
        return AnswerStep(call, progress_->SetStarted && !progress_->PrepareAsked, &Progress::VolumeAdded,
                          [&] { return AddVolume(provider, path, *snapshotId); });
    }

    HRESULT STDMETHODCALLTYPE PrepareForBackup(IVssAsync** async) override {
        CallRecord call("IVssBackupComponents::PrepareForBackup");
        const bool inOrder = progress_->MetadataGathered && progress_->StateSet && !progress_->PrepareAsked;
        return AnswerAsync(call, inOrder, &Progress::PrepareAsked, {"PrepareForBackup", &Progress::Prepared, async});
    }

    HRESULT STDMETHODCALLTYPE DoSnapshotSet(IVssAsync** async) override {
        CallRecord call("IVssBackupComponents::DoSnapshotSet");
        const bool inOrder = progress_->Prepared && progress_->VolumeAdded && !progress_->SnapshotsAsked;
        return AnswerAsync(call, inOrder, &Progress::SnapshotsAsked,
                           {"DoSnapshotSet", &Progress::SnapshotsTaken, async}, [&] {
                               for (const std::shared_ptr<Snapshot>& snapshot : snapshots_) {
                                   service_.Freeze(snapshot);
                               }
                           });
    }

    HRESULT STDMETHODCALLTYPE GatherWriterStatus(IVssAsync** async) override {
        CallRecord call("IVssBackupComponents::GatherWriterStatus");
        return AnswerAsync(call, progress_->MetadataGathered, &Progress::StatusAsked,
                           {"GatherWriterStatus", &Progress::StatusGathered, async});
    }

    HRESULT STDMETHODCALLTYPE GetWriterStatusCount(UINT* count) override {
        CallRecord call("IVssBackupComponents::GetWriterStatusCount");
        return call.AnswerStatus([&] {
            if (!progress_->StatusGathered) {
                return VSS_E_BAD_STATE;
            }
            *count = static_cast<UINT>(Writers().size());
            return S_OK;
        });
    }

    HRESULT STDMETHODCALLTYPE GetWriterStatus(UINT index, VSS_ID* instance, VSS_ID* writer, BSTR* name,
                                              VSS_WRITER_STATE* state, HRESULT* failure) override {
        CallRecord call("IVssBackupComponents::GetWriterStatus");
        call.Add("index", index);
        return call.AnswerStatus([&] {
            if (!progress_->StatusGathered) {
                return VSS_E_BAD_STATE;
            }
            if (index >= Writers().size()) {
                return VSS_E_OBJECT_NOT_FOUND;
            }
            const WriterDescription& described = Writers()[index];
            *instance = service_.MakeId();
            *writer = service_.MakeId();
            *name = described.Name ? SysAllocString(WideFromUtf8(*described.Name).c_str()) : nullptr;
            *state = static_cast<VSS_WRITER_STATE>(described.State);
            *failure = static_cast<HRESULT>(described.Failure);
            return S_OK;
        });
    }

    HRESULT STDMETHODCALLTYPE FreeWriterStatus() override {
        CallRecord call("IVssBackupComponents::FreeWriterStatus");
        return call.AnswerStatus([&] {
            if (!progress_->StatusGathered) {
                return VSS_E_BAD_STATE;
            }
            progress_->StatusGathered = false;
            return S_OK;
        });
    }

    HRESULT STDMETHODCALLTYPE GetSnapshotProperties(VSS_ID snapshotId, VSS_SNAPSHOT_PROP* properties) override {
        CallRecord call("IVssBackupComponents::GetSnapshotProperties");
        return call.AnswerStatus([&] { return DescribeSnapshot(snapshotId, *properties); });
    }

    HRESULT STDMETHODCALLTYPE BackupComplete(IVssAsync** async) override {
        CallRecord call("IVssBackupComponents::BackupComplete");
        const bool inOrder = progress_->SnapshotsTaken && !progress_->CompleteAsked && !progress_->Aborted;
        return AnswerAsync(call, inOrder, &Progress::CompleteAsked, {"BackupComplete", &Progress::Completed, async});
    }

    HRESULT STDMETHODCALLTYPE AbortBackup() override {
        CallRecord call("IVssBackupComponents::AbortBackup");
        return AnswerStep(call, progress_->Initialized && !progress_->Completed && !progress_->Aborted,
                          &Progress::Aborted);
    }

    HRESULT STDMETHODCALLTYPE DeleteSnapshots(VSS_ID objectId, VSS_OBJECT_TYPE type, BOOL force, LONG* deleted,
                                              VSS_ID* notDeleted) override {
        CallRecord call("IVssBackupComponents::DeleteSnapshots");
        call.Add("force", force != FALSE);
        return call.AnswerStatus([&] {
            if (type != VSS_OBJECT_SNAPSHOT_SET) {
                EndUnsupported("a deletion of anything but a whole snapshot set");
            }
            *deleted = 0;
            *notDeleted = VSS_ID{};
            if (!progress_->Initialized) {
                return VSS_E_BAD_STATE;
            }
            if (!progress_->SnapshotsTaken || progress_->SetDeleted || !IsSame(objectId, setId_)) {
                return VSS_E_OBJECT_NOT_FOUND;
            }
            progress_->SetDeleted = true;
            *deleted = static_cast<LONG>(snapshots_.size());
            ForgetSet();
            return S_OK;
        });
    }

// The rest of the published interface, in its order.
#define VORNIX_NOT_IMITATED(name, parameters)                                                                          \
    HRESULT STDMETHODCALLTYPE name parameters override {                                                               \
        EndUnsupported("IVssBackupComponents::" #name);                                                                \
    }

    ULONG STDMETHODCALLTYPE AddRef() override {
        EndUnsupported("IVssBackupComponents::AddRef");
    }
    VORNIX_NOT_IMITATED(QueryInterface, (REFIID, void**))
    VORNIX_NOT_IMITATED(GetWriterComponentsCount, (UINT*))
    VORNIX_NOT_IMITATED(GetWriterComponents, (UINT, IVssWriterComponentsExt**))
    VORNIX_NOT_IMITATED(InitializeForRestore, (BSTR))
    VORNIX_NOT_IMITATED(SetRestoreState, (VSS_RESTORE_TYPE))
    VORNIX_NOT_IMITATED(GetWriterMetadataCount, (UINT*))
    VORNIX_NOT_IMITATED(GetWriterMetadata, (UINT, VSS_ID*, IVssExamineWriterMetadata**))
    VORNIX_NOT_IMITATED(FreeWriterMetadata, ())
    VORNIX_NOT_IMITATED(AddComponent, (VSS_ID, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR))
    VORNIX_NOT_IMITATED(SetBackupSucceeded, (VSS_ID, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean))
    VORNIX_NOT_IMITATED(SetBackupOptions, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR))
    VORNIX_NOT_IMITATED(SetSelectedForRestore, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean))
    VORNIX_NOT_IMITATED(SetRestoreOptions, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR))
    VORNIX_NOT_IMITATED(SetAdditionalRestores, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean))
    VORNIX_NOT_IMITATED(SetPreviousBackupStamp, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR))
    VORNIX_NOT_IMITATED(SaveAsXML, (BSTR*))
    VORNIX_NOT_IMITATED(AddAlternativeLocationMapping,
                        (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean, LPCWSTR))
    VORNIX_NOT_IMITATED(AddRestoreSubcomponent,
                        (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean))
    VORNIX_NOT_IMITATED(SetFileRestoreStatus, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, VSS_FILE_RESTORE_STATUS))
    VORNIX_NOT_IMITATED(AddNewTarget,
                        (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean, LPCWSTR))
    VORNIX_NOT_IMITATED(SetRangesFilePath, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, UINT, LPCWSTR))
    VORNIX_NOT_IMITATED(PreRestore, (IVssAsync**))
    VORNIX_NOT_IMITATED(PostRestore, (IVssAsync**))
    VORNIX_NOT_IMITATED(ImportSnapshots, (IVssAsync**))
    VORNIX_NOT_IMITATED(BreakSnapshotSet, (VSS_ID))
    VORNIX_NOT_IMITATED(Query, (VSS_ID, VSS_OBJECT_TYPE, VSS_OBJECT_TYPE, IVssEnumObject**))
    VORNIX_NOT_IMITATED(DisableWriterClasses, (const VSS_ID*, UINT))
    VORNIX_NOT_IMITATED(EnableWriterClasses, (const VSS_ID*, UINT))
    VORNIX_NOT_IMITATED(DisableWriterInstances, (const VSS_ID*, UINT))
    VORNIX_NOT_IMITATED(ExposeSnapshot, (VSS_ID, VSS_PWSZ, LONG, VSS_PWSZ, VSS_PWSZ*))
    VORNIX_NOT_IMITATED(RevertToSnapshot, (VSS_ID, BOOL))
    VORNIX_NOT_IMITATED(QueryRevertStatus, (VSS_PWSZ, IVssAsync**))
#undef VORNIX_NOT_IMITATED

private:
    const std::vector<WriterDescription>& Writers() const {
        return *service_.description_.ShadowService;
    }

    // The asynchronous object that a method gives: the method's name, the step that ends with the waiting, and where it
    // goes.
    struct AsyncResult {
        const char* Step;
        bool Progress::*Done;
        IVssAsync** Object;
    };

    // The whole of a method that takes the session a step further: refused where it is out of order, as the service
    // does, else carried out by act(); noted where the session is told of success.
    template <typename Act>
    HRESULT AnswerStep(CallRecord& call, bool inOrder, bool Progress::*step, Act act) {
        const HRESULT status = call.AnswerStatus([&]() -> HRESULT { return inOrder ? act() : VSS_E_BAD_STATE; });
        if (SUCCEEDED(status)) {
            (*progress_).*step = true;
        }
        return status;
    }

    HRESULT AnswerStep(CallRecord& call, bool inOrder, bool Progress::*step) {
        return AnswerStep(call, inOrder, step, [] { return S_OK; });
    }

    // The same for a method with an asynchronous result: act() begins the step, waiting for the object ends it.
    template <typename Act>
    HRESULT AnswerAsync(CallRecord& call, bool inOrder, bool Progress::*step, const AsyncResult& result, Act act) {
        return AnswerStep(call, inOrder, step, [&] {
            act();
            *result.Object = call.Effect().NullAsync ? nullptr : new AsyncStep(result.Step, progress_, result.Done);
            return S_OK;
        });
    }

    HRESULT AnswerAsync(CallRecord& call, bool inOrder, bool Progress::*step, const AsyncResult& result) {
        return AnswerAsync(call, inOrder, step, result, [] {});
    }

    HRESULT FindVolume(const VSS_ID& provider, const std::string& name, const VolumeDescription*& volume) const {
        if (!progress_->Initialized) {
            return VSS_E_BAD_STATE;
        }
        if (!IsNull(provider)) {
            return providerNotRegistered;
        }
        volume = FindVolumeByName(service_.description_, name);
        return volume == nullptr ? VSS_E_OBJECT_NOT_FOUND : S_OK;
    }

    HRESULT AddVolume(const VSS_ID& provider, const std::string& name, VSS_ID& snapshotId) {
        const VolumeDescription* volume = nullptr;
        const HRESULT status = FindVolume(provider, name, volume);
        if (FAILED(status)) {
            return status;
        }
        if (!volume->Supported) {
            return volumeNotSupported;
        }
        for (const std::shared_ptr<Snapshot>& snapshot : snapshots_) {
            if (snapshot->Volume == volume) {
                return objectAlreadyExists;
            }
        }
        snapshots_.push_back(service_.Add(*volume, setId_));
        snapshotId = snapshots_.back()->Id;
        return S_OK;
    }

    HRESULT DescribeSnapshot(const VSS_ID& snapshotId, VSS_SNAPSHOT_PROP& properties) const {
        if (!progress_->SnapshotsTaken) {
            return VSS_E_BAD_STATE;
        }
        for (const std::shared_ptr<Snapshot>& snapshot : snapshots_) {
            if (IsSame(snapshot->Id, snapshotId)) {
                properties = {};
                properties.m_SnapshotId = snapshot->Id;
                properties.m_SnapshotSetId = snapshot->SetId;
                properties.m_lSnapshotsCount = static_cast<LONG>(snapshots_.size());
                properties.m_pwszSnapshotDeviceObject =
                    snapshot->DeviceObject ? DuplicateText(*snapshot->DeviceObject) : nullptr;
                properties.m_pwszOriginalVolumeName = DuplicateText(snapshot->Volume->Name);
                properties.m_pwszOriginatingMachine = DuplicateText("vornix-bench");
                properties.m_pwszServiceMachine = DuplicateText("vornix-bench");
                properties.m_eStatus = VSS_SS_CREATED;
                return S_OK;
            }
        }
        return VSS_E_OBJECT_NOT_FOUND;
    }

    void ForgetSet() {
        for (const std::shared_ptr<Snapshot>& snapshot : snapshots_) {
            service_.Forget(snapshot);
        }
        snapshots_.clear();
    }

    ShadowService& service_;
    std::shared_ptr<Progress> progress_ = std::make_shared<Progress>();
    VSS_ID setId_ = {};
    std::vector<std::shared_ptr<Snapshot>> snapshots_;
};

ShadowService::ShadowService(const MachineDescription& description,
                             std::map<std::uint32_t, std::unique_ptr<Disk>>& disks, std::string folder)
    : description_(description), disks_(disks), folder_(std::move(folder)) {}

std::shared_ptr<Snapshot> ShadowService::FindByDevice(const std::string& path) const {
    for (const std::shared_ptr<Snapshot>& snapshot : standing_) {
        if (!snapshot->DeviceObject || snapshot->DeviceObject->empty()) {
            continue;
        }
        const bool inDeviceFolder = snapshot->DeviceObject->starts_with("\\Device\\");
        const std::string prefix = inDeviceFolder ? "\\\\?\\GLOBALROOT" : "";
        if (prefix + *snapshot->DeviceObject == path) {
            return snapshot;
        }
    }
    return nullptr;
}

IVssBackupComponents* ShadowService::CreateComponents() {
    return new BackupComponents(*this);
}

VSS_ID ShadowService::MakeId() {
    VSS_ID id = {};
    id.Data1 = 0x564E0000u + ++ids_;
    id.Data2 = 0x5258;
    return id;
}

std::shared_ptr<Snapshot> ShadowService::Add(const VolumeDescription& volume, const VSS_ID& setId) {
    auto snapshot = std::make_shared<Snapshot>();
    snapshot->Id = MakeId();
    snapshot->SetId = setId;
    snapshot->Volume = &volume;
    ++added_;
    snapshot->DeviceObject = volume.Shadow.DefaultDeviceObject
                                 ? "\\Device\\HarddiskVolumeShadowCopy" + std::to_string(added_)
                                 : volume.Shadow.DeviceObject;
    return snapshot;
}

void ShadowService::Freeze(const std::shared_ptr<Snapshot>& snapshot) {
    const VolumeDescription& volume = *snapshot->Volume;
    const auto disk = volume.Extents.empty() ? disks_.end() : disks_.find(volume.Extents.front().Disk);
    if (disk != disks_.end()) {
        snapshot->SectorSize = disk->second->Description().SectorSize;
    }
    if (volume.Shadow.File) {
        const std::string path = JoinHostPath(folder_, *volume.Shadow.File);
        snapshot->File = HostFile::Open(path, HostFile::Mode::Read);
        if (snapshot->File == nullptr) {
            EndUnsupported("a shadow file that cannot be read, " + path);
        }
    } else if (disk != disks_.end()) {
        const ExtentDescription& extent = volume.Extents.front();
        if (disk->second->File()->Open()) {
            snapshot->Extent = std::make_unique<FrozenExtent>(disk->second->File(), extent.Start, extent.Length);
        }
    }
    if (!volume.Extents.empty()) {
        snapshot->Length = volume.Extents.front().Length;
    } else if (snapshot->File != nullptr) {
        snapshot->Length = snapshot->File->FindSize().value_or(0);
    }
    snapshot->Standing = true;
    standing_.push_back(snapshot);
}

void ShadowService::Forget(const std::shared_ptr<Snapshot>& snapshot) {
    snapshot->Standing = false;
    snapshot->File.reset();
    snapshot->Extent.reset();
    std::erase(standing_, snapshot);
}

OpenOutcome OpenShadowDevice(const std::shared_ptr<Snapshot>& snapshot, const OpenRequest& request) {
    if ((request.Access & GENERIC_WRITE) != 0) {
        return RefuseOpen(ERROR_WRITE_PROTECT);
    }
    return {.Object = std::make_unique<ShadowObject>(snapshot, request), .Result = {}};
}

} // namespace vornix::bench
