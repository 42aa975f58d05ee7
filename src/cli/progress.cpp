// The meter line.
#include "cli/progress.h"

#include <windows.h>
#include <cstdio>

namespace vornix {

void PrintProgress(uint64_t bytesDone, uint64_t bytesTotal, uint64_t startTicks) {
    const double percent =
        bytesTotal == 0 ? 0.0 : static_cast<double>(bytesDone) * 100.0 / static_cast<double>(bytesTotal);
    const double elapsedSeconds = static_cast<double>(GetTickCount64() - startTicks) / 1000.0;
    // Too short a time gives a number that says nothing.
    const double rate = elapsedSeconds <= 0.1 ? 0.0 : static_cast<double>(bytesDone) / 1048576.0 / elapsedSeconds;
    // The three closing blanks wipe what a longer line before this one left behind.
    std::printf("\r  %6.2f%%  %llu / %llu MiB  (%.1f MiB/s)   ", percent,
                static_cast<unsigned long long>(bytesDone >> 20), static_cast<unsigned long long>(bytesTotal >> 20),
                rate);
    std::fflush(stdout);
}

} // namespace vornix
