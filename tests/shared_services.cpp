// Shared services through COM_GetService: one object per service identifier
// and number, made on first request and kept for every later caller.
#include <gtest/gtest.h>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;
using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using CatInformationPtr = utlAutoIf<COM_ICatInformation, &COM_IID_ICatInformation>;
using Services = ComponentTest;

template <class Ptr>
HRESULT GetService(const COM_GUID& clsid, unsigned int number, const COM_GUID& iid, Ptr& out) {
    return COM_GetService(clsid, number, iid, out.OutVoid());
}

}  // namespace

TEST_F(Services, EachIdentifierAndNumberKeepsOneObjectForEveryLaterCaller) {
    CatRegisterPtr first, other;
    ASSERT_EQ(GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister, first), S_OK);
    ASSERT_EQ(GetService(COM_CLSID_CategoryManager, 1, COM_IID_ICatRegister, other), S_OK);
    EXPECT_NE(first.Get(), other.Get());
    // A failed query leaves the lookup's reference on the kept object,
    // beside the collection's and the caller's.
    void* out = Unwritten<void>();
    EXPECT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_IRegistry, &out),
              E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(RefCount(first), 3u);

    // A later caller's interface comes from the kept object.
    CatInformationPtr information, expected;
    ASSERT_EQ(GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatInformation, information),
              S_OK);
    ASSERT_EQ(expected.QueryFrom(first), S_OK);
    EXPECT_EQ(information.Get(), expected.Get());
}

// A failure stores nothing: once the class is installed, the next request
// makes the service.
TEST_F(Services, AFailureStoresNothingAndAServiceStoredWhileBeingMadeGivesUnexpectedAndTheNewObject) {
    UnknownPtr late, kept;
    EXPECT_EQ(GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown, late),
              CLASS_E_CLASSNOTAVAILABLE);
    InstallComponent(COMPONENT_testreentrant);
    EXPECT_EQ(GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown, late),
              E_UNEXPECTED);
    ASSERT_FALSE(late.IsNull());
    // Nobody else holds the late object: the one stored first is kept.
    EXPECT_EQ(RefCount(late), 1u);
    ASSERT_EQ(GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown, kept),
              S_OK);
    EXPECT_NE(kept.Get(), late.Get());
    EXPECT_EQ(RefCount(kept), 2u);
}
