// AlignedBuffer over the runtime's aligned allocator.
#include "disk/aligned_buffer.h"

#include <malloc.h>

#include "cli/fatal.h"

namespace vornix {

AlignedBuffer::AlignedBuffer(uint64_t size, uint64_t alignment)
    : data_(static_cast<uint8_t*>(_aligned_malloc(size, alignment))) {
    if (data_ == nullptr) {
        Fatal("out of memory allocating aligned I/O buffer", 0);
    }
}

void AlignedBuffer::Free::operator()(uint8_t* block) const {
    _aligned_free(block);
}

} // namespace vornix
