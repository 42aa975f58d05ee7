// The C library's <stdlib.h>, with the call that the Microsoft runtime adds to it and the program uses.
// No include guard around the first line: the library's own header is meant to be included more than once.
#include_next <stdlib.h>

#ifndef VORNIX_SDK_STDLIB_H
#define VORNIX_SDK_STDLIB_H

#ifndef __cdecl
#define __cdecl
#endif

extern "C" char* __cdecl _fullpath(char* absolute, const char* path, size_t size);

#endif
