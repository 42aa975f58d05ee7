// The guarded way to the shadow copy service, on Windows: a structured exception guard around the one call that
// reaches the delay-loaded library first. The helper that loads it raises a structured exception when the library is
// missing, which no catch clause sees.
#include "snapshot/create_components_guarded.h"

#include <excpt.h>

// Takes every exception. Named to the system by the guard's table and by nothing in this language, hence the plain
// linkage and the attribute.
extern "C" __attribute__((used)) long TakeEveryException(EXCEPTION_POINTERS*, void*);

long TakeEveryException(EXCEPTION_POINTERS*, void*) {
    return EXCEPTION_EXECUTE_HANDLER;
}

// In a function of its own, since control comes to the guard's end from anywhere inside it: what is looked at behind
// the guard must lie in memory, and nothing here may need a destructor. Not inlined, because the labels that the guard
// writes can stand only once in a file.
static __attribute__((noinline)) bool CallInsideGuard(IVssBackupComponents** components, volatile HRESULT* result) {
    volatile bool hasReturned = false;
    __try1(TakeEveryException) {
        *result = CreateVssBackupComponents(components);
        hasReturned = true;
    }
    __except1;
    return hasReturned;
}

namespace vornix {

HRESULT CreateComponentsGuarded(IVssBackupComponents** components) {
    volatile HRESULT result = libraryIsMissing;
    if (!CallInsideGuard(components, &result)) {
        *components = nullptr;
        return libraryIsMissing;
    }
    return result;
}

} // namespace vornix
