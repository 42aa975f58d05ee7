// COM and the Volume Shadow Copy service: the answers to joining and leaving an apartment, to strings that cross an
// interface, and to the two exports of the service's library, which does not exist here.
//
// Joining succeeds although there is nothing to reach: what the program does next is to ask for the service, and that
// is where a system without it differs from one with it.
#include <cstdint>
#include <cwchar>
#include <exception>
#include <new>

#include "linux_calls.h"
#include "unsupported.h"

using namespace vornix::platform;

namespace {

// How often this thread has joined an apartment, and of which kind the first time made it.
thread_local unsigned apartmentCount = 0;
thread_local bool isMultithreaded = false;
bool isSecurityInitialised = false;

// What a call into a delay-loaded library raises where the library is missing.
class MissingLibrary : public std::exception {
public:
    const char* what() const noexcept override { return "VSSAPI.DLL is not there"; }
};

// A string begins behind its length in bytes, as COM lays it out; the eight bytes keep the text aligned.
constexpr size_t prefixLength = 8;

} // namespace

HRESULT WINAPI LinuxCoInitializeEx(LPVOID reserved, DWORD flags) {
    constexpr DWORD knownFlags =
        COINIT_MULTITHREADED | COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE | COINIT_SPEED_OVER_MEMORY;
    if (reserved != nullptr) {
        return E_INVALIDARG;
    }
    if ((flags & ~knownFlags) != 0) {
        EndUnsupported("CoInitializeEx", "flags", flags);
    }
    const bool wantsMultithreaded = (flags & COINIT_APARTMENTTHREADED) == 0;
    if (apartmentCount != 0 && wantsMultithreaded != isMultithreaded) {
        return RPC_E_CHANGED_MODE;
    }
    isMultithreaded = wantsMultithreaded;
    apartmentCount++;
    return apartmentCount == 1 ? S_OK : S_FALSE;
}

HRESULT WINAPI LinuxCoInitializeSecurity(PSECURITY_DESCRIPTOR descriptor, LONG serviceCount,
                                         SOLE_AUTHENTICATION_SERVICE* services, void* reserved1, DWORD authentication,
                                         DWORD impersonation, void* list, DWORD capabilities, void* reserved3) {
    if (descriptor != nullptr || serviceCount != -1 || services != nullptr || list != nullptr ||
        capabilities != EOAC_NONE) {
        EndUnsupported("CoInitializeSecurity", "security of one's own, capabilities", capabilities);
    }
    if (authentication != RPC_C_AUTHN_LEVEL_PKT_PRIVACY || impersonation != RPC_C_IMP_LEVEL_IMPERSONATE) {
        EndUnsupported("CoInitializeSecurity", "authentication level", authentication);
    }
    if (reserved1 != nullptr || reserved3 != nullptr) {
        return E_INVALIDARG;
    }
    if (apartmentCount == 0) {
        return CO_E_NOTINITIALIZED;
    }
    if (isSecurityInitialised) {
        return RPC_E_TOO_LATE;
    }
    // It settles how calls to other processes are made, and no call can be made from here.
    isSecurityInitialised = true;
    return S_OK;
}

void WINAPI LinuxCoUninitialize() {
    // One call too many is passed over, as on Windows.
    if (apartmentCount == 0) {
        return;
    }
    apartmentCount--;
    if (apartmentCount == 0) {
        isSecurityInitialised = false;
    }
}

extern "C" BSTR WINAPI SysAllocString(const OLECHAR* text) {
    if (text == nullptr) {
        return nullptr;
    }
    const size_t units = std::wcslen(text);
    auto* const block = new (std::nothrow) uint8_t[prefixLength + (units + 1) * sizeof(OLECHAR)];
    if (block == nullptr) {
        return nullptr;
    }
    // In bytes of 16-bit units, the width that a string has outside this process.
    const auto length = static_cast<uint32_t>(units * 2);
    new (block + prefixLength - sizeof length) uint32_t(length);
    auto* const string = reinterpret_cast<BSTR>(block + prefixLength);
    std::wmemcpy(string, text, units + 1);
    return string;
}

// NOLINTNEXTLINE(readability-non-const-parameter): published so
void WINAPI LinuxSysFreeString(BSTR text) {
    if (text != nullptr) {
        delete[](reinterpret_cast<uint8_t*>(text) - prefixLength);
    }
}

HRESULT WINAPI LinuxCreateVssBackupComponentsInternal(IVssBackupComponents**) {
    throw MissingLibrary();
}

void WINAPI LinuxVssFreeSnapshotPropertiesInternal(VSS_SNAPSHOT_PROP*) {
    throw MissingLibrary();
}
