// Large pages for large blocks of memory: what the kernel and a disk's driver handle by the page they then handle by 2
// MiB.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>

#include "left_out.h"

namespace vornix::platform {

// Of x86-64; elsewhere a block is merely aligned better than it need be.
inline constexpr size_t hugePage = size_t{2} << 20;

// A block from posix_memalign, to be given back with free, or null with the error in `code`. From 2 MiB on it begins on
// a large page and lies in such as far as they fit into it and the system has them.
inline void* AllocateBlock(size_t size, size_t alignment, int& code) {
    void* block = nullptr;
    const bool isLarge = size >= hugePage;
    code = posix_memalign(&block, isLarge && alignment < hugePage ? hugePage : alignment, size);
    if (code != 0) {
        return nullptr;
    }
    if (isLarge && !IsLeftOut("large_pages")) {
        // A wish: without it the memory is the same.
        (void)madvise(block, size / hugePage * hugePage, MADV_HUGEPAGE);
    }
    return block;
}

} // namespace vornix::platform
