// The fault policy of the described machine. See faults.h.
#include "faults.h"

#include <algorithm>
#include <utility>

namespace vornix::bench {

namespace {

constexpr CallTraits knownCalls[] = {
    {.Name = "CreateFileW", .LastError = true},
    {.Name = "ReadFile", .LastError = true, .Reads = true, .Transfers = true},
    {.Name = "WriteFile", .LastError = true, .Transfers = true},
    {.Name = "SetFilePointerEx", .LastError = true},
    {.Name = "GetFileSizeEx", .LastError = true},
    {.Name = "DeviceIoControl", .LastError = true},
    {.Name = "CloseHandle", .LastError = true},
    {.Name = "GetFileAttributesA", .LastError = true},
    {.Name = "MoveFileExW", .LastError = true},
    {.Name = "FindFirstVolumeW", .LastError = true},
    {.Name = "FindNextVolumeW", .LastError = true},
    {.Name = "FindVolumeClose", .LastError = true},
    {.Name = "_fullpath", .GivesPointer = true},
    {.Name = "_aligned_malloc", .GivesPointer = true},
    {.Name = "GetTickCount64"},
    {.Name = "BCryptOpenAlgorithmProvider", .Status = true},
    {.Name = "BCryptGetProperty", .Status = true},
    {.Name = "BCryptSetProperty", .Status = true},
    {.Name = "BCryptCloseAlgorithmProvider", .Status = true},
    {.Name = "BCryptCreateHash", .Status = true},
    {.Name = "BCryptHashData", .Status = true},
    {.Name = "BCryptFinishHash", .Status = true},
    {.Name = "BCryptDestroyHash", .Status = true},
    {.Name = "BCryptGenRandom", .Status = true},
    {.Name = "BCryptDeriveKeyPBKDF2", .Status = true},
    {.Name = "BCryptGenerateSymmetricKey", .Status = true},
    {.Name = "BCryptDestroyKey", .Status = true},
    {.Name = "BCryptEncrypt", .Status = true},
    {.Name = "BCryptDecrypt", .Status = true},
    {.Name = "CoInitializeEx", .Status = true},
    {.Name = "CoInitializeSecurity", .Status = true},
    {.Name = "CoUninitialize"},
    {.Name = "SysFreeString"},
    {.Name = "CreateVssBackupComponents", .Status = true},
    {.Name = "VssFreeSnapshotProperties"},
    {.Name = "IVssBackupComponents::InitializeForBackup", .Status = true},
    {.Name = "IVssBackupComponents::SetBackupState", .Status = true},
    {.Name = "IVssBackupComponents::GatherWriterMetadata", .Status = true, .GivesAsync = true},
    {.Name = "IVssBackupComponents::PrepareForBackup", .Status = true, .GivesAsync = true},
    {.Name = "IVssBackupComponents::AbortBackup", .Status = true},
    {.Name = "IVssBackupComponents::GatherWriterStatus", .Status = true, .GivesAsync = true},
    {.Name = "IVssBackupComponents::GetWriterStatusCount", .Status = true},
    {.Name = "IVssBackupComponents::FreeWriterStatus", .Status = true},
    {.Name = "IVssBackupComponents::GetWriterStatus", .Status = true},
    {.Name = "IVssBackupComponents::BackupComplete", .Status = true, .GivesAsync = true},
    {.Name = "IVssBackupComponents::SetContext", .Status = true},
    {.Name = "IVssBackupComponents::StartSnapshotSet", .Status = true},
    {.Name = "IVssBackupComponents::AddToSnapshotSet", .Status = true},
    {.Name = "IVssBackupComponents::DoSnapshotSet", .Status = true, .GivesAsync = true},
    {.Name = "IVssBackupComponents::DeleteSnapshots", .Status = true},
    {.Name = "IVssBackupComponents::GetSnapshotProperties", .Status = true},
    {.Name = "IVssBackupComponents::IsVolumeSupported", .Status = true},
    {.Name = "IVssBackupComponents::Release"},
    {.Name = "IVssAsync::Wait", .Status = true},
    {.Name = "IVssAsync::QueryStatus", .Status = true, .QueriesAsync = true},
    {.Name = "IVssAsync::Release"},
    {.Name = "exit"},
};

bool MatchesPath(const FaultEntry& entry, std::initializer_list<std::string_view> paths) {
    if (!entry.Path || paths.size() == 0) {
        return true;
    }
    return std::any_of(paths.begin(), paths.end(),
                       [&](std::string_view path) { return path.find(*entry.Path) != std::string_view::npos; });
}

} // namespace

const CallTraits* FindCallTraits(std::string_view name) {
    const auto* const end = knownCalls + sizeof knownCalls / sizeof knownCalls[0];
    const auto* const found = std::find_if(knownCalls, end, [&](const CallTraits& call) { return call.Name == name; });
    return found == end ? nullptr : found;
}

std::optional<std::string> FindMisfit(const FaultEntry& entry) {
    const CallTraits& call = *FindCallTraits(entry.Call);
    const FaultEffect& effect = entry.Effect;
    const auto misfit = [&](const char* key) {
        std::string text = key;
        text += " does not fit ";
        text += entry.Call;
        return text;
    };
    if (effect.Error && !call.LastError) {
        return misfit("error");
    }
    if (effect.Transferred && !call.Transfers) {
        return misfit("transferred");
    }
    if (effect.Status && !call.Status) {
        return misfit("status");
    }
    if (effect.AsyncStatus && !call.QueriesAsync) {
        return misfit("async_status");
    }
    if (effect.NullAsync && !call.GivesAsync) {
        return misfit("null_async");
    }
    if (effect.Null && !call.GivesPointer) {
        return misfit("null");
    }
    if (effect.Flip && !call.Reads) {
        return misfit("flip");
    }
    if (effect.Status && (effect.AsyncStatus || effect.NullAsync)) {
        return std::string("status excludes async_status and null_async");
    }
    const bool fails = effect.Error || effect.Status || effect.AsyncStatus || effect.NullAsync || effect.Null;
    if (effect.Kill && (fails || effect.Flip)) {
        return std::string("kill leaves no call for a further effect");
    }
    if (!fails && !effect.Transferred && !effect.Flip && !effect.Poke && !effect.Touch && !effect.Kill) {
        return std::string("no effect is given");
    }
    return std::nullopt;
}

FaultPolicy::FaultPolicy(std::vector<FaultEntry> entries) {
    entries_.reserve(entries.size());
    for (FaultEntry& entry : entries) {
        entries_.push_back({.Entry = std::move(entry)});
    }
}

const FaultEffect* FaultPolicy::Take(std::string_view call, std::initializer_list<std::string_view> paths) {
    for (Progress& progress : entries_) {
        if (progress.Entry.Call != call || !MatchesPath(progress.Entry, paths)) {
            continue;
        }
        if (progress.Skipped < progress.Entry.Skip) {
            ++progress.Skipped;
        } else if (progress.Taken < progress.Entry.Times) {
            ++progress.Taken;
            return &progress.Entry.Effect;
        }
    }
    return nullptr;
}

} // namespace vornix::bench
