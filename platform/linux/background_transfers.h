// Transfers between a file's device and the page cache that go on beside the program, on threads of their own: what
// Windows does for a file that is read or written in sequence, and Linux does too little of.
//
// The kernel reads ahead, but usually no more than 128 KiB, which is little beside the program's chunks, and it begins
// to write when much memory is full of what has to be written. Telling it to begin earlier takes as long as handing the
// pages to the disk does.
#pragma once

#include <cstdint>

namespace vornix::platform {

// How many bytes the kernel itself reads ahead in this file, as its file system or device is set; 0 where nothing is
// known.
uint64_t KernelReadAhead(int descriptor);

// Asks for the bytes [from, to) of the file to be brought into memory, in addition to what was asked for it before; of
// all that, nothing in front of `reader`, where the file is being read by now. Waits for nothing. It is a wish: where
// it cannot be had, and whatever fails on the way, the program's own read finds the same bytes and the same error.
void ReadAhead(int descriptor, uint64_t reader, uint64_t from, uint64_t to);

// Asks for the bytes [from, to) of the file, which were written, to be sent to its disk, in addition to what was asked
// for it before; `from` is where that ended, or anywhere in a file of which everything asked for was done. Waits for
// nothing. It is a wish: whoever wants to know that the bytes are on the disk syncs the file, which also finds what
// failed on the way.
void WriteBehind(int descriptor, uint64_t from, uint64_t to);

// Before the descriptor is closed: takes back what was asked for it and has not been begun, and returns when no
// transfer uses it any more.
void EndBackgroundTransfers(int descriptor);

} // namespace vornix::platform
