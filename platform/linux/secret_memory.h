// Memory that holds a secret.
#pragma once

namespace vornix::platform {

// Keeps the memory of this process from everybody but the system's administrator, for the rest of the run: there is no
// core file, and no other process of the same user reads it or attaches to it. To be called before a password or a key
// is in memory. A run without one stays open to a debugger, and leaves a core file where the system keeps them.
void HideMemory();

} // namespace vornix::platform
