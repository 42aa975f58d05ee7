// What a handle of this platform stands for, and the table that handles are looked up in.
#pragma once

#include <windows.h>

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "overlapped_transfers.h"
#include "owned_descriptor.h"

namespace vornix::platform {

enum class ObjectKind {
    File,
    Disk,
    SystemVolume,
};

struct FreeAlignedBlock {
    void operator()(void* block) const;
};

// An open file or device. Owns its descriptor.
struct OpenObject {
    OpenObject() = default;
    ~OpenObject();
    OpenObject(const OpenObject&) = delete;
    OpenObject& operator=(const OpenObject&) = delete;
    OpenObject(OpenObject&&) = delete;
    OpenObject& operator=(OpenObject&&) = delete;

    ObjectKind Kind = ObjectKind::File;
    int Descriptor = -1; // -1 for the system volume, which is asked about and never read
    DWORD Access = 0;    // GENERIC_READ, GENERIC_WRITE
    uint64_t Position = 0;
    std::string Name; // for reports: the path of a file as it was given, the number and node of a disk

    // Disks alone: the length in bytes when it was opened, whether its medium can be taken out, and whether it took
    // bytes since it was flushed.
    dev_t Device = 0;
    uint64_t Length = 0;
    bool Removable = false;
    bool IsUnflushed = false;
    std::vector<OwnedDescriptor> Claims; // on the devices that the disk itself stands for, where it is a loop device

    // What the close has to look after: whether the handle changed anything, whether it made the file, with the folder
    // that has its name (not open where it may not be), and the first failure of a write or a flush.
    bool IsWritten = false;
    bool IsNew = false;
    OwnedDescriptor Folder;
    DWORD Failure = ERROR_SUCCESS;

    // Offset and length of a transfer must be whole multiples of this; 1 where there is no such rule.
    uint32_t SectorSize = 1;
    // What the kernel demands of the memory of a direct transfer; 1 for a buffered handle. Other memory is copied
    // through Bounce, which is allocated at the first transfer that needs it and kept.
    uint32_t MemoryAlignment = 1;
    std::unique_ptr<void, FreeAlignedBlock> Bounce;

    // What goes on beside the program, once there was something: where the last transfer of each kind ended, whether it
    // was one that another may follow beside the program, and for a buffered file from where bytes have not been sent
    // to the disk yet.
    uint64_t LastWriteEnd = 0;
    bool LastWriteIsLong = false;
    uint64_t SendStart = 0;
    uint64_t LastReadEnd = 0;
    bool LastReadIsLong = false;
    std::unique_ptr<OverlappedTransfers> Overlapped;
};

// The transfers of the handle that go on beside the program, or null where it has none. One that this process was
// copied with is left as it is: its thread, and what it has under way, are the other process's.
OverlappedTransfers* OverlappedOf(OpenObject& object);

// Ends them, once everything is written. Nothing uses the descriptor any more.
void EndOverlapped(OpenObject& object);

// From now on the process does not exit before everything that handles had written behind is on its way no more: a run
// that fails ends without closing them, and what the program was told to be written must not go with their threads.
// Failures at that point have nobody left to be told.
void FinishWritesAtExit();

// Takes the object into the table and gives its handle. Handles are never null, never INVALID_HANDLE_VALUE, and not
// given again soon after they were closed.
HANDLE RegisterObject(std::unique_ptr<OpenObject> object);

// The object of a handle, or null with ERROR_INVALID_HANDLE recorded. Owned by the table.
OpenObject* FindObject(HANDLE handle);

// Takes the object out of the table, or gives null with ERROR_INVALID_HANDLE recorded.
std::unique_ptr<OpenObject> UnregisterObject(HANDLE handle);

} // namespace vornix::platform
