// The answers that the Linux platform gives to the program's calls: Linux<name> for each row of platform/calls.def,
// with the parameters and the meaning of the published Windows call of that name. What a row does not support it
// does not pretend to: an unknown flag, control code, property or algorithm ends the process and names itself.
//
// The plain names are not defined beside these: entry_points.cpp gives them to the program, and the described machine
// gives its own instead and reaches the host's files through these.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <malloc.h>

#include <windows.h>
// The headers below need the types of the one above.
#include <bcrypt.h>
#include <objbase.h>
#include <oleauto.h>
#include <vsbackup.h>
#include <winioctl.h>

#define VORNIX_CALL(header, kind, result, convention, name, parameters, arguments)                                     \
    result convention Linux##name parameters;
#include "../calls.def"
#undef VORNIX_CALL
