// Memory that unbuffered I/O takes.
#pragma once

#include <cstdint>

namespace vornix {

// An owned block of `size` bytes, aligned as asked. Moves and is never copied; a moved-from buffer holds nothing.
class AlignedBuffer {
public:
    // `alignment` is a power of two. Ends the process where the allocator gives nothing.
    AlignedBuffer(uint64_t size, uint64_t alignment);
    AlignedBuffer(AlignedBuffer&& other) noexcept;
    AlignedBuffer& operator=(AlignedBuffer&& other) noexcept;
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;
    ~AlignedBuffer();

    uint8_t* data() const { return data_; }
    uint64_t size() const { return size_; }

private:
    uint8_t* data_;
    uint64_t size_;
};

} // namespace vornix
