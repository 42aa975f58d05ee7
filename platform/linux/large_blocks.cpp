// Where the program's large blocks of memory come from: its tables, and the buffers of its chunks. Not for small ones,
// which stay with the C library.
//
// A table of the largest image is 268 MB, and opening the image fills two blocks of that size. In pages of 4 KiB the
// kernel spends as long on handing them out, one fault each, as the program on reading and hashing what goes into them.
// Linux gives a process pages of 2 MiB where it asks for them (huge_pages.h).
//
// The sanitizers bring allocation functions of their own, and so do some tests: only the product is linked with these.
#include <cstdlib>
#include <new>

#include "huge_pages.h"

using namespace vornix::platform;

namespace {

void* Allocate(std::size_t size) {
    if (size < hugePage) {
        return std::malloc(size == 0 ? 1 : size);
    }
    int code = 0;
    return AllocateBlock(size, hugePage, code);
}

} // namespace

void* operator new(std::size_t size) {
    for (;;) {
        if (void* const block = Allocate(size); block != nullptr) {
            return block;
        }
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            throw std::bad_alloc();
        }
        handler();
    }
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
