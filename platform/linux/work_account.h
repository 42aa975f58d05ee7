// What the run would leave half done if it ended at this moment: the file that it makes, the disk that it writes.
// Whoever ends the run from outside tells of it, and holds the account meanwhile: nothing gets its name, and no disk
// its first byte, behind what was told.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

namespace vornix::platform {

// Whoever changes what an entry tells of holds Mutex from in front of the change until it is entered.
struct WorkAccount {
    std::timed_mutex Mutex;
    std::string File;                        // made by this run, and not renamed since; empty where there is none
    std::string Disk;                        // open to be written; empty where there is none
    std::atomic<bool> IsDiskWritten = false; // whether a byte of Disk may have been written
    // Whether a file or a disk to be written was ever opened: the run has more to show for itself than its output.
    std::atomic<bool> HasOtherWork = false;
};

// That of this process. It is never destroyed.
WorkAccount& AccountOfRun();

// Before each write to the disk that is entered.
void EnterDiskWrite();

// Behind the close of that disk by the program, which is done with it.
void EnterDiskClose();

} // namespace vornix::platform
