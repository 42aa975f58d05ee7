// The C library's <stdio.h>, with the checked open of the Microsoft runtime.
// No include guard around the first line: the library's own header is meant to be included more than once.
#include_next <stdio.h>

#ifndef VORNIX_SDK_STDIO_H
#define VORNIX_SDK_STDIO_H

#ifndef __cdecl
#define __cdecl
#endif

typedef int errno_t;

extern "C" errno_t __cdecl fopen_s(FILE** stream, const char* path, const char* mode);

#endif
