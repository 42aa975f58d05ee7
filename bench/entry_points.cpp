// Gives the program's calls their plain names on the described machine: each SWAPPED row of platform/calls.def ends at
// Bench<name>. On Linux a SHARED row ends at the platform's own answer; on Windows it is left to the import.
//
// On Windows a call through the SDK's declarations may take either of two symbols: the pointer __imp_<name>, where the
// declaration says dllimport, or the plain one. Both are defined here, and the linker therefore takes neither from the
// import library. The functions bear their symbols as labels, since a second declaration of the SDK's names would
// clash.
#include "bench_calls.h"

#ifdef _WIN32

#define VORNIX_ENTRY_SHARED(result, convention, name, parameters, arguments)
#define VORNIX_ENTRY_SWAPPED(result, convention, name, parameters, arguments)                                          \
    extern "C" {                                                                                                       \
    extern decltype(&Bench##name) importOf##name asm("__imp_" #name);                                                  \
    decltype(&Bench##name) importOf##name = &Bench##name;                                                              \
    result convention Entry##name parameters asm(#name);                                                               \
    result convention Entry##name parameters {                                                                         \
        return Bench##name arguments;                                                                                  \
    }                                                                                                                  \
    }

#else

#include "../platform/linux/linux_calls.h"

#define VORNIX_ENTRY_SHARED(result, convention, name, parameters, arguments)                                           \
    extern "C" result convention name parameters {                                                                     \
        return Linux##name arguments;                                                                                  \
    }
#define VORNIX_ENTRY_SWAPPED(result, convention, name, parameters, arguments)                                          \
    extern "C" result convention name parameters {                                                                     \
        return Bench##name arguments;                                                                                  \
    }

#endif

#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    VORNIX_ENTRY_##kind(result, convention, name, parameters, arguments)
#include "../platform/calls.def"
#undef VORNIX_CALL
