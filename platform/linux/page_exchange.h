// Hands a block over by its pages and not by its bytes: the kernel changes the addresses of large pages in a few
// microseconds, where a copy of 4 MiB takes half a millisecond of the processor that hashes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vornix::platform {

class PageExchange {
public:
    PageExchange() = default;
    ~PageExchange();
    PageExchange(const PageExchange&) = delete;
    PageExchange& operator=(const PageExchange&) = delete;
    PageExchange(PageExchange&&) = delete;
    PageExchange& operator=(PageExchange&&) = delete;

    // Brings the first `length` bytes of the block into the memory. What the block holds afterwards is undefined.
    //
    // Exchanges the pages of both where they are whole large pages, and copies otherwise, also where the kernel knows
    // no such exchange. Both are the process's own memory, mapped from no file, and nobody else uses either meanwhile.
    void Take(uint8_t* memory, uint8_t* block, size_t length);

private:
    bool Reserve(size_t length);

    // Where the one's pages wait for the other's: an address range with nothing in it between two exchanges.
    uint8_t* range_ = nullptr;
    size_t rangeSize_ = 0;
    uint8_t* spare_ = nullptr;
    size_t spareSize_ = 0;
};

} // namespace vornix::platform
