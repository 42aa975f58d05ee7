// AlignedBuffer over the runtime's aligned allocator.
#include "disk/aligned_buffer.h"

#include <malloc.h>
#include <utility>

#include "cli/fatal.h"

namespace vornix {

AlignedBuffer::AlignedBuffer(uint64_t size, uint64_t alignment)
    : data_(static_cast<uint8_t*>(_aligned_malloc(size, alignment))), size_(size) {
    if (data_ == nullptr) {
        Fatal("out of memory allocating aligned I/O buffer", 0);
    }
}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& other) noexcept {
    if (this != &other) {
        _aligned_free(data_);
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

AlignedBuffer::~AlignedBuffer() {
    _aligned_free(data_);
}

} // namespace vornix
