// The clone command.
#pragma once

namespace vornix {

// Copies one disk straight onto another, block for block, and with `verify` compares the copy afterwards. Refuses the
// disk that the system runs from as a target, a run that is not `confirmed`, a disk in use and one that is too small,
// all before the first write. The source is read live, as it stands while the command runs. Returns when the copy is
// done; a failure from the first write on leaves the target partially written, and says so.
void CloneDisk(int fromDisk, int toDisk, bool confirmed, bool verify);

} // namespace vornix
