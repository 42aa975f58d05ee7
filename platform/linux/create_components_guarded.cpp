// The guarded way to the shadow copy service, on Linux. The missing library is raised as a C++ exception here.
#include "snapshot/create_components_guarded.h"

namespace vornix {

HRESULT CreateComponentsGuarded(IVssBackupComponents** components) {
    try {
        return CreateVssBackupComponents(components);
    } catch (...) {
        *components = nullptr;
        return libraryIsMissing;
    }
}

} // namespace vornix
