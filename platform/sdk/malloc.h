// The C library's <malloc.h>, with the aligned allocator of the Microsoft runtime.
// No include guard around the first line: the library's own header is meant to be included more than once.
#include_next <malloc.h>

#ifndef VORNIX_SDK_MALLOC_H
#define VORNIX_SDK_MALLOC_H

#ifndef __cdecl
#define __cdecl
#endif

extern "C" void* __cdecl _aligned_malloc(size_t size, size_t alignment);
extern "C" void __cdecl _aligned_free(void* block);

#endif
