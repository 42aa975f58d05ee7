// The answers that the described machine gives to the program's calls: Bench<name> for each SWAPPED row of
// platform/calls.def, with the parameters and the meaning of the published Windows call of that name. entry_points.cpp
// gives them the plain names. Before the machine is built, and for a handle that the program did not get from it, each
// of them goes straight on to the host's own call.
#pragma once

#include <windows.h>
// The headers below need the types of the one above.
#include <bcrypt.h>
#include <malloc.h>
#include <objbase.h>
#include <oleauto.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vsbackup.h>
#include <vss.h>
#include <vswriter.h>
#include <winioctl.h>

#define VORNIX_BENCH_SHARED(result, convention, name, parameters)
#define VORNIX_BENCH_SWAPPED(result, convention, name, parameters) result convention Bench##name parameters;
#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    VORNIX_BENCH_##kind(result, convention, name, parameters)
#include "../platform/calls.def"
#undef VORNIX_CALL
#undef VORNIX_BENCH_SWAPPED
#undef VORNIX_BENCH_SHARED
