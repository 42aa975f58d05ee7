// The C API, as the library itself includes it: what is declared there is all that is visible of what is compiled
// hidden. It is not for those who link with the library; vrnx.h is.
#pragma once

#pragma GCC visibility push(default)
#include "vrnx.h"
#pragma GCC visibility pop
