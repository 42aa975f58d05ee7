// The part of the Windows SDK's <objbase.h> (COM) that the snapshot session uses. Declarations only.
#pragma once

#include <windows.h>

typedef WCHAR OLECHAR;
typedef OLECHAR* BSTR;

inline constexpr GUID GUID_NULL{};

struct IUnknown {
    virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppvObject) = 0;
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;

protected:
    // An object ends with its last Release and never through a pointer to its interface.
    ~IUnknown() = default;
};

typedef enum tagCOINIT {
    COINIT_MULTITHREADED = 0x0,
    COINIT_APARTMENTTHREADED = 0x2,
    COINIT_DISABLE_OLE1DDE = 0x4,
    COINIT_SPEED_OVER_MEMORY = 0x8,
} COINIT;

#define RPC_C_AUTHN_LEVEL_DEFAULT 0u
#define RPC_C_AUTHN_LEVEL_PKT_PRIVACY 6u
#define RPC_C_IMP_LEVEL_DEFAULT 0u
#define RPC_C_IMP_LEVEL_IMPERSONATE 3u

typedef enum tagEOLE_AUTHENTICATION_CAPABILITIES {
    EOAC_NONE = 0x0,
} EOLE_AUTHENTICATION_CAPABILITIES;

typedef struct tagSOLE_AUTHENTICATION_SERVICE {
    DWORD dwAuthnSvc;
    DWORD dwAuthzSvc;
    OLECHAR* pPrincipalName;
    HRESULT hr;
} SOLE_AUTHENTICATION_SERVICE;

extern "C" {

HRESULT WINAPI CoInitializeEx(LPVOID reserved, DWORD flags);
HRESULT WINAPI CoInitializeSecurity(PSECURITY_DESCRIPTOR descriptor, LONG serviceCount,
                                    SOLE_AUTHENTICATION_SERVICE* services, void* reserved1, DWORD authentication,
                                    DWORD impersonation, void* list, DWORD capabilities, void* reserved3);
void WINAPI CoUninitialize(void);

} // extern "C"
