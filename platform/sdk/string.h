// The C library's <string.h>, with the call that the Microsoft runtime adds to it and the program uses.
// No include guard around the first line: the library's own header is meant to be included more than once.
#include_next <string.h>

#ifndef VORNIX_SDK_STRING_H
#define VORNIX_SDK_STRING_H

#ifndef __cdecl
#define __cdecl
#endif

extern "C" int __cdecl _stricmp(const char* a, const char* b);

#endif
