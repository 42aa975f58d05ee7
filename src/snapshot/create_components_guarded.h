// The call that fails in a manner of its own where the shadow copy library is missing.
#pragma once

#include <windows.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

namespace vornix {

constexpr HRESULT libraryIsMissing = static_cast<HRESULT>(0x8007007Eu); // a module that could not be found

// Calls CreateVssBackupComponents inside a guard that catches every structured exception. The library behind it is
// delay-loaded, so that the program starts without it, and its absence shows at this call as an exception: then
// `*components` is null and the result libraryIsMissing.
//
// The guard is the platform's, so this is defined beside each platform's other answers.
HRESULT CreateComponentsGuarded(IVssBackupComponents** components);

} // namespace vornix
