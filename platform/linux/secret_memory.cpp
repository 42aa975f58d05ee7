// Memory that holds a secret.
#include "secret_memory.h"

#include <sys/prctl.h>

namespace vornix::platform {

void HideMemory() {
    // A limit on core files would not do: the kernel hands a core to a program that collects them whatever the limit
    // is. Every kernel has this call, and it cannot fail.
    (void)prctl(PR_SET_DUMPABLE, 0);
}

} // namespace vornix::platform
