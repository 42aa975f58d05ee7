// The ordinary end of a run on a described machine: the last line of the log, and the tracker's file. A process that is
// killed, or that ends abnormally, has neither.
#pragma once

namespace vornix::bench {

// To be called once there is a machine and before the program registers an exit routine, so that the end comes behind
// all of them: some still make calls. False if the runtime has no room for the registration.
bool RegisterRunEnd();

} // namespace vornix::bench
