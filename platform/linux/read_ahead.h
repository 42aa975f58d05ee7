// Reading ahead: while the program computes on what it has read of a file, what comes next is brought into the page
// cache by a thread beside it. The kernel reads ahead as well, but usually no more than 128 KiB, which is little beside
// the program's chunks.
#pragma once

#include <cstdint>

namespace vornix::platform {

// How many bytes the kernel itself reads ahead in this file, as its file system or device is set; 0 where nothing is
// known.
uint64_t KernelReadAhead(int descriptor);

// Asks for the bytes [from, to) of the file, in addition to what was asked for it before; of all that, nothing in front
// of `reader`, where the file is being read by now. Waits for nothing. It is a wish: where it cannot be had, and
// whatever fails on the way, the program's own read finds the same bytes and the same error.
void ReadAhead(int descriptor, uint64_t reader, uint64_t from, uint64_t to);

// Before the descriptor is closed: takes back what was asked for it, and returns when nobody reads it any more.
void EndReadAhead(int descriptor);

} // namespace vornix::platform
