// The restore command.
#pragma once

#include <string>

namespace vornix {

struct RestoreOptions {
    std::string inPath;
    int disk = 0;
    bool confirmed = false;
    std::string passwordFile; // empty when none was given
    bool skipZero = false;
};

// Writes the image at `inPath` back onto the disk with that number, over whatever is there, each chunk checked before
// it is written. Refuses the disk that the system runs from, a run that is not `confirmed`, a disk in use and one that
// is too small, all before the first write. With `skipZero`, chunks that are all zero are read and checked, but left
// unwritten. Returns when the disk is written; a failure from the first write on leaves it partially written, and says
// so.
void RestoreImage(const RestoreOptions& options);

} // namespace vornix
