// The clock and the calls of the C runtime on the described machine.
#include "bench_calls.h"
#include "call_record.h"
#include "host.h"
#include "machine.h"
#include "real_calls.h"

using namespace vornix::bench;

ULONGLONG WINAPI BenchGetTickCount64() {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealGetTickCount64();
    }
    CallRecord call("GetTickCount64");
    ULONGLONG value = 0;
    if (machine->Ticks) {
        value = machine->Ticks->Start;
        machine->Ticks->Start += machine->Ticks->Step;
    } else {
        value = RealGetTickCount64();
    }
    call.Add("value", value);
    call.Finish();
    return value;
}

char* __cdecl Bench_fullpath(char* absolute, const char* path, size_t size) {
    if (CurrentMachine() == nullptr) {
        return Real_fullpath(absolute, path, size);
    }
    const std::string name = Utf8FromNarrow(path);
    CallRecord call("_fullpath", {name});
    call.Add("path", name);
    char* result = nullptr;
    if (!call.Effect().Null) {
        result = Real_fullpath(absolute, path, size);
        call.AdoptLastError();
    }
    if (result != nullptr) {
        call.Add("result", Utf8FromNarrow(result));
    }
    call.Add("ok", result != nullptr);
    call.Finish();
    return result;
}

void* __cdecl Bench_aligned_malloc(size_t size, size_t alignment) {
    if (CurrentMachine() == nullptr) {
        return Real_aligned_malloc(size, alignment);
    }
    CallRecord call("_aligned_malloc");
    call.Add("size", size);
    call.Add("alignment", alignment);
    void* block = nullptr;
    // Decided here, since the runtime of Windows may end the process for such an alignment instead.
    const bool powerOfTwo = alignment != 0 && (alignment & (alignment - 1)) == 0;
    if (!call.Effect().Null && powerOfTwo) {
        block = Real_aligned_malloc(size, alignment);
        call.AdoptLastError();
    }
    call.Finish();
    return block;
}
