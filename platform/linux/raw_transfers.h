// What a transfer asks of the kernel, and what becomes of its failure. Nothing here waits for another thread, records
// anything in the handle, or touches the last error: the program's own thread and the one beside it use it alike.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

#include "open_objects.h"

namespace vornix::platform {

// Moves one stretch between memory, of the alignment that the handle asks for, and the file, as far as it goes. Gives 0
// or the errno value that stopped it; a stretch that ends early with 0 ended at the end of the file.
int TransferStretch(const OpenObject& file, bool writing, uint8_t* memory, size_t length, uint64_t position,
                    size_t& done);

// What it means that a transfer of `length` bytes moved `done` and gave `code`. ERROR_SUCCESS where nothing went wrong:
// a file may end in front of what was asked for, a disk may not.
DWORD ErrorOfTransfer(const OpenObject& file, int code, size_t done, size_t length);

} // namespace vornix::platform
