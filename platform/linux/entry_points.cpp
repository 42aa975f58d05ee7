// The plain names of the calls, for a program that stands on this platform itself. The described machine brings its
// own and leaves this file out.
#include "linux_calls.h"

#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    extern "C" result convention name parameters {                                                                     \
        return Linux##name arguments;                                                                                  \
    }
#include "../calls.def"
#undef VORNIX_CALL
