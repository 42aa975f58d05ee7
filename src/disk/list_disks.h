// The list-disks command.
#pragma once

namespace vornix {

// Prints one line for each of the disks 0 to 15 that can be opened. A disk that cannot be opened is passed over, so a
// user without the right to open any sees an empty list; a disk that opens but does not answer ends the process.
void ListDisks();

} // namespace vornix
