// Share modes of host files and disks between all handles of all runs on the machine, by advisory locks.
#pragma once

#include <windows.h>

namespace vornix::platform {

// Takes the place of the open file `fd` among its other handles: `access` is what this handle does (GENERIC_READ,
// GENERIC_WRITE), `share` what it lets others do (FILE_SHARE_READ, FILE_SHARE_WRITE). False if either side's share
// mode forbids the other's access; then nothing is left behind. The place is given up when the file is closed.
//
// A file system without such locks gives true: nothing there can say who else has the file open, and refusing every
// open would be worse than sharing it.
bool TakeSharePlace(int fd, DWORD access, DWORD share);

// Whether another handle, of any run, has a place on the open file `fd`. No handle of this platform shares deletion,
// so this is what forbids a rename.
bool IsHeldByAnother(int fd);

} // namespace vornix::platform
