// The refusal of what no answer supports.
#include "unsupported.h"

#include <cstdio>
#include <cstdlib>

namespace vornix::platform {

void EndUnsupported(const char* call, const char* what) {
    std::fprintf(stderr, "vornix: %s: %s is not supported on this platform\n", call, what);
    std::abort();
}

void EndUnsupported(const char* call, const char* what, unsigned long long value) {
    std::fprintf(stderr, "vornix: %s: %s 0x%llX is not supported on this platform\n", call, what, value);
    std::abort();
}

} // namespace vornix::platform
