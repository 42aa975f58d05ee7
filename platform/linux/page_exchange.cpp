// Pages that change their addresses.
#include "page_exchange.h"

#include <sys/mman.h>

#include <atomic>
#include <cstring>

#include "huge_pages.h"
#include "left_out.h"

#ifndef MREMAP_DONTUNMAP
#define MREMAP_DONTUNMAP 4
#endif

namespace vornix::platform {

namespace {

// Until the kernel has refused once: before 5.7 it moves no pages and leaves their old addresses mapped, and neither
// does what only plays a kernel.
std::atomic<bool> mayBeMoved = !IsLeftOut("exchange");

bool IsWhole(const uint8_t* memory) {
    return reinterpret_cast<uintptr_t>(memory) % hugePage == 0;
}

// Gives `to` the pages of `from`, which is left mapped and without any. No address is ever without a mapping that
// another thread's allocation could take. Where the kernel refuses, `to` is mapped still, with undefined content.
bool MovePages(uint8_t* from, uint8_t* to, size_t length) {
    constexpr int flags = MREMAP_MAYMOVE | MREMAP_FIXED | MREMAP_DONTUNMAP;
    if (mremap(from, length, length, flags, to) != MAP_FAILED) {
        return true;
    }
    mayBeMoved = false;
    // It may have made room already. If there is no memory even for empty pages, whoever touches them ends.
    (void)mmap(to, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    return false;
}

} // namespace

PageExchange::~PageExchange() {
    if (range_ != nullptr) {
        (void)munmap(range_, rangeSize_);
    }
}

bool PageExchange::Reserve(size_t length) {
    if (spareSize_ >= length) {
        return true;
    }
    if (range_ != nullptr) {
        (void)munmap(range_, rangeSize_);
    }
    rangeSize_ = length + hugePage;
    void* const range = mmap(nullptr, rangeSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    range_ = range == MAP_FAILED ? nullptr : static_cast<uint8_t*>(range);
    if (range_ == nullptr) {
        spareSize_ = 0;
        return false;
    }
    spare_ = range_ + (hugePage - reinterpret_cast<uintptr_t>(range_) % hugePage) % hugePage;
    spareSize_ = length;
    return true;
}

void PageExchange::Take(uint8_t* memory, uint8_t* block, size_t length) {
    const bool isExchanged = mayBeMoved && length % hugePage == 0 && IsWhole(memory) && IsWhole(block) &&
                             Reserve(length) && MovePages(memory, spare_, length) && MovePages(block, memory, length);
    if (!isExchanged) {
        std::memcpy(memory, block, length);
        return;
    }
    // Where this fails the block has new pages when it is used again.
    (void)MovePages(spare_, block, length);
}

} // namespace vornix::platform
