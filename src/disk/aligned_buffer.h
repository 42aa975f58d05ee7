// Memory that unbuffered I/O takes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>

namespace vornix {

// What the memory of transfers to and from a disk is aligned to where the disk's own sectors ask for less.
constexpr uint64_t AlignmentForDisk(uint32_t sectorSize) {
    return std::max<uint64_t>(sectorSize, 4096);
}

// An owned block of `size` bytes, aligned as asked. Moves and is never copied.
class AlignedBuffer {
public:
    // `alignment` is a power of two. Ends the process where the allocator gives nothing.
    AlignedBuffer(uint64_t size, uint64_t alignment);

    uint8_t* data() const { return data_.get(); }

private:
    struct Free {
        void operator()(uint8_t* block) const;
    };
    std::unique_ptr<uint8_t, Free> data_;
};

} // namespace vornix
