// What makes written bytes last: room for them before they come, and the way from the cache to the medium.
//
// The program looks at every result but those of a file's last writes and of its closes. Whatever fails there, and
// whatever a medium says only after the program was told that a write is done, ends the run here: a run that ends with
// status 0 has everything on its media.
#pragma once

#include <windows.h>

#include "open_objects.h"

namespace vornix::platform {

// Before a write to an ordinary file at its position: gives room on the disk to what lies between the end of the file
// and there, and extends the file up to there, as Windows does. Gives 0 or an errno value; ENOSPC and the like before
// anything of the file is lost.
int AllocateGap(OpenObject& file);

// Records that a write or a flush of this handle failed; the first failure stays.
void RecordFailure(OpenObject& object, DWORD error);

// Waits until nothing of this handle is being written beside the program any more. Gives ERROR_SUCCESS, or the failure
// of a write there, from then on each time.
DWORD SettleWrites(OpenObject& object);

// Has a disk bring everything that it took so far to its medium. FALSE with the last error recorded where it cannot, or
// could not before: a disk tells of what it lost once.
BOOL FlushDisk(OpenObject& disk);

// Waits until a folder's entries are on the disk. Where the folder is not open (-1) or cannot be synced by itself, the
// whole file system of `file` is. Gives 0 or an errno value.
int SyncFolder(int folder, int file);

// Behind the sync of a folder, has what that wrote flushed from the cache of the disk, of the file system of `file`.
// All others do so by themselves, but ext4 and its forerunners, where they have no journal, only with the sync of a
// file or folder whose attributes somebody set: those of `file` are set to what they are. Gives 0 or an errno value.
int FlushBehindFolder(int file);

// Brings everything that was written through the handle to its medium, the name of a new file too, and closes the
// descriptor. A file's pages leave the cache, so that whoever reads it next reads the medium. Ends the process with
// a fatal report where not everything arrived.
void CloseWritten(OpenObject& object);

// From now on CloseWritten leaves bytes and names of ordinary files to the system, as an ordinary program does. For
// tests alone, whose files nobody wants after a loss of power. What fails until then ends the process all the same.
void LeaveFilesInCache();

} // namespace vornix::platform
