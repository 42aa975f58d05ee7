// The fatal report.
#include "cli/fatal.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace vornix {

void Fatal(const char* message, LONG status) {
    if (status != 0) {
        std::fprintf(stderr, "FATAL: %s (NTSTATUS 0x%08lX)\n", message,
                     static_cast<unsigned long>(static_cast<uint32_t>(status)));
    } else {
        const unsigned long lastError = GetLastError(); // read before the report itself makes calls
        std::fprintf(stderr, "FATAL: %s (GetLastError=%lu)\n", message, lastError);
    }
    std::exit(1);
}

} // namespace vornix
