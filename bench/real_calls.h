// The calls below the described machine: Real<name> for each SWAPPED row of platform/calls.def is what the host itself
// answers, so Linux<name> natively and the system's own function on Windows.
#pragma once

#include "bench_calls.h"

#define VORNIX_REAL_SHARED(result, convention, name, parameters)
#define VORNIX_REAL_SWAPPED(result, convention, name, parameters) result convention Real##name parameters;
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    VORNIX_REAL_##kind(result, convention, name, parameters)
#include "../platform/calls.def"
#undef VORNIX_CALL
#undef VORNIX_REAL_SWAPPED
#undef VORNIX_REAL_SHARED
