// The contract of the COM calls and of the way to the shadow copy service.
#include <gtest/gtest.h>

#include <windows.h>

#include <objbase.h>
#include <oleauto.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include <string>

#include "snapshot/create_components_guarded.h"

namespace {

HRESULT InitialiseSecurity() {
    return CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
}

TEST(ComContract, ApartmentIsJoinedOnceAndCounted) {
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
    CoUninitialize();
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE) << "still joined after the first of two leaves";
    CoUninitialize();
    CoUninitialize();
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK) << "free again after the last leave";
    CoUninitialize();
}

TEST(ComContract, SecurityIsSettledInAnApartment) {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    // What the program takes for success: settled here, or by somebody before.
    const HRESULT status = InitialiseSecurity();
    EXPECT_TRUE(status == S_OK || status == RPC_E_TOO_LATE) << std::hex << status;
    CoUninitialize();
}

TEST(ComContract, StringIsACopyThatIsFreed) {
    std::wstring text = L"writer";
    BSTR copy = SysAllocString(text.c_str());
    ASSERT_NE(copy, nullptr);
    text[0] = L'?';
    EXPECT_EQ(std::wstring(copy), L"writer");
    // Its length in bytes of 16-bit units stands in front of it.
    EXPECT_EQ(reinterpret_cast<const unsigned*>(copy)[-1], 12u);
    SysFreeString(copy);
    SysFreeString(nullptr);
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
}

TEST(ComContract, ServiceIsThereWholeOrNotAtAll) {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    IVssBackupComponents* components = nullptr;
    const HRESULT status = vornix::CreateComponentsGuarded(&components);
    if (SUCCEEDED(status)) {
        ASSERT_NE(components, nullptr);
        components->Release();
    } else {
        EXPECT_EQ(components, nullptr);
    }
    CoUninitialize();
}

} // namespace
