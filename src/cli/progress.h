// What a person reads of amounts: the meter line of the long loops, and byte counts in GiB.
#pragma once

#include <cstdint>

namespace vornix {

// Rewrites the meter line on standard output and flushes it. `startTicks` is what GetTickCount64 gave before the
// caller's loop; the rate shown is the mean since then. The line stays open: the caller ends it with a line feed after
// its loop, and begins with one whatever it prints in between.
void PrintProgress(uint64_t bytesDone, uint64_t bytesTotal, uint64_t startTicks);

// Whether a loop over the chunks of an image shows the meter at this chunk: the first, every 32nd after it, the last.
constexpr bool IsProgressDue(uint64_t index, uint64_t chunkCount) {
    return (index & 31) == 0 || index == chunkCount - 1;
}

// A byte count in GiB, the unit of every size that the program prints outside the meter.
inline double BytesToGiB(uint64_t bytes) {
    return static_cast<double>(bytes) * 9.313225746154785e-10;
}

} // namespace vornix
