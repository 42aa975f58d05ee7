// The clone command.
#pragma once

namespace vornix {

struct CloneOptions {
    int fromDisk = 0;
    int toDisk = 0;
    bool confirmed = false;
    bool verify = false;
};

// Copies one disk straight onto another, block for block, and with `verify` compares the copy afterwards. Refuses the
// disk that the system runs from as a target, a run that is not `confirmed`, a disk in use and one that is too small,
// all before the first write. The source is read live, as it stands while the command runs. Returns when the copy is
// done; a failure from the first write on leaves the target partially written, and says so.
void CloneDisk(const CloneOptions& options);

} // namespace vornix
