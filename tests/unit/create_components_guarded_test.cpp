// The guarded way to the shadow copy service on the platform under test: with its library missing the call comes back
// with the code of a missing module, as many times as it is made.
//
// VORNIX_SHADOW_LIBRARY in the environment says "missing" where the caller has seen to it that the library cannot be
// loaded, and "Wine's own" where it is one that can be loaded and has no service behind it. Without either it may be
// there or not.
#include "snapshot/create_components_guarded.h"

#include <gtest/gtest.h>

#include <objbase.h>

#include <cstdlib>
#include <string>

namespace vornix {
namespace {

std::string KnownLibrary() {
#ifdef _WIN32
    const char* const said = std::getenv("VORNIX_SHADOW_LIBRARY");
    return said != nullptr ? said : "";
#else
    return "missing";
#endif
}

class CreateComponentsGuardedTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK); }
    void TearDown() override { CoUninitialize(); }
};

TEST_F(CreateComponentsGuardedTest, AMissingLibraryIsAResultAndNoException) {
    if (KnownLibrary() != "missing") {
        GTEST_SKIP() << "the library may be there";
    }
    for (int attempt = 0; attempt < 3; ++attempt) {
        int elsewhere = 0;
        auto* components = reinterpret_cast<IVssBackupComponents*>(&elsewhere); // what stood there is overwritten
        EXPECT_EQ(CreateComponentsGuarded(&components), libraryIsMissing);
        EXPECT_EQ(components, nullptr);
    }
}

TEST_F(CreateComponentsGuardedTest, ALibraryThatRefusesIsNotAMissingOne) {
    if (KnownLibrary() != "Wine's own") {
        GTEST_SKIP() << "the library may be missing, or have a service";
    }
    int elsewhere = 0;
    auto* components = reinterpret_cast<IVssBackupComponents*>(&elsewhere);
    const HRESULT status = CreateComponentsGuarded(&components);
    EXPECT_TRUE(FAILED(status));
    EXPECT_NE(status, libraryIsMissing);
}

TEST_F(CreateComponentsGuardedTest, AFailureGivesNoObjectAndASuccessMayBeReleased) {
    IVssBackupComponents* components = nullptr;
    const HRESULT status = CreateComponentsGuarded(&components);
    if (FAILED(status)) {
        EXPECT_EQ(components, nullptr);
    } else if (components != nullptr) {
        components->Release();
    }
}

} // namespace
} // namespace vornix
