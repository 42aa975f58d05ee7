// Memory for tables and chunks: large blocks, not initialised, in large pages where the system has them. A hundred
// megabytes in pages of 4 KiB take as long to be handed out as to be read. It is not for small things.
#pragma once

#include "port.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace vrnx {

constexpr size_t largePage = 0x200000;

struct FreeBlock {
    size_t size = 0;
    void operator()(uint8_t* block) const {
        if (size < largePage) {
            operator delete(block);
        } else {
            operator delete (block, std::align_val_t{largePage});
        }
    }
};

using Block = std::unique_ptr<uint8_t, FreeBlock>;

// Throws std::bad_alloc.
inline Block AllocateBlock(size_t size) {
    if (size < largePage) {
        return {static_cast<uint8_t*>(operator new(size)), FreeBlock{size}};
    }
    void* block = operator new (size, std::align_val_t{largePage});
    PreferLargePages(block, size);
    return {static_cast<uint8_t*>(block), FreeBlock{size}};
}

} // namespace vrnx
