// The guarded way to the shadow copy service, on Windows, as Microsoft's compiler writes a structured exception guard.
// What it is for stands in create_components_guarded.cpp.
#include "snapshot/create_components_guarded.h"

#include <excpt.h>

namespace vornix {

HRESULT CreateComponentsGuarded(IVssBackupComponents** components) {
    HRESULT result = libraryIsMissing;
    // Nothing in this function may need a destructor.
    __try {
        result = CreateVssBackupComponents(components);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        *components = nullptr;
        result = libraryIsMissing;
    }
    return result;
}

} // namespace vornix
