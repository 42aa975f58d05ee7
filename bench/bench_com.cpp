// COM as the snapshot session meets it on the described machine, and the two exports of the shadow copy library.
// Answered here on both hosts, so that a described machine needs neither COM nor a shadow copy service of the host.
#include "bench_calls.h"
#include "call_record.h"
#include "host.h"
#include "machine.h"
#include "real_calls.h"

#include <cstdlib>

using namespace vornix::bench;

namespace {

bool IsComRunning(const Machine& machine) {
    return machine.ComUsers > 0 || machine.ComRunsAnyway;
}

} // namespace

HRESULT WINAPI BenchCoInitializeEx(LPVOID reserved, DWORD flags) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealCoInitializeEx(reserved, flags);
    }
    CallRecord call("CoInitializeEx");
    call.AddCode("flags", flags);
    if (call.Effect().Status && SUCCEEDED(static_cast<HRESULT>(*call.Effect().Status))) {
        machine->ComRunsAnyway = true;
    }
    return call.AnswerStatus([&] {
        if (reserved != nullptr) {
            return E_INVALIDARG;
        }
        if (flags != COINIT_MULTITHREADED) {
            EndUnsupported("an apartment other than the multithreaded one");
        }
        return machine->ComUsers++ == 0 ? S_OK : S_FALSE;
    });
}

HRESULT WINAPI BenchCoInitializeSecurity(PSECURITY_DESCRIPTOR descriptor, LONG serviceCount,
                                         SOLE_AUTHENTICATION_SERVICE* services, void* reserved1, DWORD authentication,
                                         DWORD impersonation, void* list, DWORD capabilities, void* reserved3) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealCoInitializeSecurity(descriptor, serviceCount, services, reserved1, authentication, impersonation,
                                        list, capabilities, reserved3);
    }
    CallRecord call("CoInitializeSecurity");
    call.Add("authentication", authentication);
    call.Add("impersonation", impersonation);
    call.AddCode("capabilities", capabilities);
    return call.AnswerStatus([&] {
        constexpr DWORD highestAuthentication = RPC_C_AUTHN_LEVEL_PKT_PRIVACY;
        constexpr DWORD highestImpersonation = 4; // RPC_C_IMP_LEVEL_DELEGATE
        if (descriptor != nullptr || serviceCount != -1 || services != nullptr || list != nullptr ||
            capabilities != EOAC_NONE) {
            EndUnsupported("security with a descriptor, services, a list or capabilities of its own");
        }
        if (reserved1 != nullptr || reserved3 != nullptr || authentication > highestAuthentication ||
            impersonation > highestImpersonation) {
            return E_INVALIDARG;
        }
        if (!IsComRunning(*machine)) {
            return CO_E_NOTINITIALIZED;
        }
        if (machine->ComSecured) {
            return RPC_E_TOO_LATE;
        }
        machine->ComSecured = true;
        return S_OK;
    });
}

void WINAPI BenchCoUninitialize() {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        RealCoUninitialize();
        return;
    }
    CallRecord call("CoUninitialize");
    // One too many is of no effect, as in COM.
    if (machine->ComUsers > 0 && --machine->ComUsers == 0) {
        machine->ComSecured = false;
    }
    call.Finish();
}

void WINAPI BenchSysFreeString(BSTR text) {
    if (CurrentMachine() == nullptr) {
        RealSysFreeString(text);
        return;
    }
    CallRecord call("SysFreeString");
    RealSysFreeString(text);
    call.AdoptLastError();
    call.Finish();
}

HRESULT WINAPI BenchCreateVssBackupComponentsInternal(IVssBackupComponents** components) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        return RealCreateVssBackupComponentsInternal(components);
    }
    {
        CallRecord call("CreateVssBackupComponents");
        if (machine->Shadows != nullptr || call.Effect().Status) {
            return call.AnswerStatus([&] {
                *components = nullptr;
                if (!IsComRunning(*machine)) {
                    return CO_E_NOTINITIALIZED;
                }
                *components = machine->Shadows->CreateComponents();
                return S_OK;
            });
        }
        call.Add("raised", true);
        call.Finish();
    }
    // Outside the block above: what is raised need not unwind it on every host.
    RaiseMissingLibrary();
}

void WINAPI BenchVssFreeSnapshotPropertiesInternal(VSS_SNAPSHOT_PROP* properties) {
    Machine* const machine = CurrentMachine();
    if (machine == nullptr) {
        RealVssFreeSnapshotPropertiesInternal(properties);
        return;
    }
    {
        CallRecord call("VssFreeSnapshotProperties");
        call.Finish();
    }
    if (machine->Shadows == nullptr) {
        RaiseMissingLibrary();
    }
    for (VSS_PWSZ* const text : {&properties->m_pwszSnapshotDeviceObject, &properties->m_pwszOriginalVolumeName,
                                 &properties->m_pwszOriginatingMachine, &properties->m_pwszServiceMachine,
                                 &properties->m_pwszExposedName, &properties->m_pwszExposedPath}) {
        std::free(*text);
        *text = nullptr;
    }
}
