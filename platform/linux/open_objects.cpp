// The table of handles.
#include "open_objects.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <vector>

#include "last_error.h"

namespace vornix::platform {

namespace {

// A handle is the slot's number from 1, the slot's generation above it, and two zero bits below, as Windows has them:
// a handle that is used after its close misses the generation instead of meeting another file.
constexpr unsigned slotBits = 20;
constexpr uintptr_t slotMask = (uintptr_t{1} << slotBits) - 1;
constexpr uintptr_t generationMask = 0xFFFFFFFF;

struct Slot {
    std::unique_ptr<OpenObject> Object;
    uintptr_t Generation = 0;
};

std::mutex tableMutex;
std::vector<Slot>& Table() {
    // Never destroyed: exit routines may still close handles when static objects end.
    static std::vector<Slot>& table = *new std::vector<Slot>;
    return table;
}

// The slot of a handle, or null. The mutex is held.
Slot* FindSlot(HANDLE handle) {
    const auto value = reinterpret_cast<uintptr_t>(handle);
    const uintptr_t number = (value >> 2) & slotMask;
    if ((value & 3) != 0 || number == 0 || number > Table().size()) {
        return nullptr;
    }
    Slot& slot = Table()[number - 1];
    return slot.Object != nullptr && slot.Generation == (value >> (2 + slotBits)) ? &slot : nullptr;
}

void SettleEveryWrite() {
    const std::lock_guard<std::mutex> lock(tableMutex);
    for (const Slot& slot : Table()) {
        OverlappedTransfers* const overlapped = slot.Object != nullptr ? OverlappedOf(*slot.Object) : nullptr;
        if (overlapped != nullptr) {
            (void)overlapped->Settle();
        }
    }
}

} // namespace

void FreeAlignedBlock::operator()(void* block) const {
    std::free(block); // NOLINT(cppcoreguidelines-no-malloc): this is the owner, of what posix_memalign gave
}

OpenObject::~OpenObject() {
    EndOverlapped(*this);
    if (Descriptor >= 0) {
        // Whoever wants to know how the close went takes the descriptor out first.
        (void)close(Descriptor);
    }
}

OverlappedTransfers* OverlappedOf(OpenObject& object) {
    if (object.Overlapped != nullptr && object.Overlapped->IsOfAnotherProcess()) {
        (void)object.Overlapped.release();
    }
    return object.Overlapped.get();
}

void EndOverlapped(OpenObject& object) {
    if (OverlappedOf(object) != nullptr) {
        object.Overlapped.reset();
    }
}

void FinishWritesAtExit() {
    static const bool isRegistered = std::atexit(SettleEveryWrite) == 0;
    (void)isRegistered; // without it a failed run leaves less written than it told
}

HANDLE RegisterObject(std::unique_ptr<OpenObject> object) {
    const std::lock_guard<std::mutex> lock(tableMutex);
    std::vector<Slot>& table = Table();
    size_t index = 0;
    while (index < table.size() && table[index].Object != nullptr) {
        index++;
    }
    if (index == table.size()) {
        table.emplace_back();
    }
    Slot& slot = table[index];
    slot.Object = std::move(object);
    slot.Generation = (slot.Generation + 1) & generationMask;
    return reinterpret_cast<HANDLE>(((slot.Generation << slotBits) | (index + 1)) << 2);
}

OpenObject* FindObject(HANDLE handle) {
    const std::lock_guard<std::mutex> lock(tableMutex);
    Slot* slot = FindSlot(handle);
    if (slot == nullptr) {
        (void)FailWith(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return slot->Object.get();
}

std::unique_ptr<OpenObject> UnregisterObject(HANDLE handle) {
    const std::lock_guard<std::mutex> lock(tableMutex);
    Slot* slot = FindSlot(handle);
    if (slot == nullptr) {
        (void)FailWith(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return std::move(slot->Object);
}

} // namespace vornix::platform
