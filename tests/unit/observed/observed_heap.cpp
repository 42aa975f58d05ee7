// operator new and delete of the test program: the C heap, and a look at two kinds of block as they are freed.
#include <cstdlib>
#include <new>
#include <vector>

#include "observed_calls.h"

namespace {

using vornix::observed::Current;
using vornix::observed::Observation;

// Recording allocates, and what it allocates is not of interest.
bool isRecording = false;

void* Allocate(size_t size) {
    void* const block = std::malloc(size != 0 ? size : 1);
    Observation* const observation = Current();
    if (observation != nullptr && !isRecording && size > observation->LargestBlock.Length) {
        observation->LargestBlock = {static_cast<const uint8_t*>(block), size};
    }
    return block;
}

void* AllocateOrThrow(size_t size) {
    void* const block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void Free(void* block) {
    Observation* const observation = Current();
    if (observation != nullptr && !isRecording && block != nullptr) {
        isRecording = true;
        if (block == observation->Password.Begin && !observation->IsPasswordFreed) {
            observation->IsPasswordFreed = true;
            observation->WasPasswordZero = observation->Password.IsZero();
            observation->WasDerivedKeyZero = observation->DerivedKey.IsZero();
        }
        // An address is used again, so one that was freed is no key's any more.
        if (std::erase(observation->KeyObjects, block) != 0) {
            observation->Calls.push_back({"operator delete", block});
        }
        isRecording = false;
    }
    std::free(block);
}

} // namespace

// All forms that pair with each other, as the sanitizers demand; those for over-aligned types stay the library's.
void* operator new(size_t size) {
    return AllocateOrThrow(size);
}
void* operator new[](size_t size) {
    return AllocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* block) noexcept {
    Free(block);
}
void operator delete[](void* block) noexcept {
    Free(block);
}
void operator delete(void* block, size_t) noexcept {
    Free(block);
}
void operator delete[](void* block, size_t) noexcept {
    Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
