// Shared services through COM_GetService: one object per service identifier
// and number, made on first request and kept for every later caller.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;
using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using CatInformationPtr = utlAutoIf<COM_ICatInformation, &COM_IID_ICatInformation>;
using CounterPtr = utlAutoIf<ICounter, &IID_ICounter>;

void* const kUntouched = reinterpret_cast<void*>(0xdeadbeef);

using Services = ComponentTest;

}  // namespace

TEST_F(Services, SameIdentifierAndNumberGiveTheKeptObject) {
    CatRegisterPtr first;
    CatRegisterPtr second;
    ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister, first.OutVoid()),
              S_OK);
    ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister, second.OutVoid()),
              S_OK);
    EXPECT_EQ(first.Get(), second.Get());
    // One reference for the collection and one for each caller.
    EXPECT_EQ(RefCount(first), 3u);

    // A later caller's interface comes from the kept object.
    CatInformationPtr information;
    ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatInformation,
                             information.OutVoid()),
              S_OK);
    CatInformationPtr expected;
    ASSERT_EQ(expected.QueryFrom(first), S_OK);
    EXPECT_EQ(information.Get(), expected.Get());

    EXPECT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister, nullptr),
              E_POINTER);
}

TEST_F(Services, NumbersZeroAndOneGiveTwoObjects) {
    CatRegisterPtr zero;
    CatRegisterPtr one;
    ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister, zero.OutVoid()),
              S_OK);
    ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 1, COM_IID_ICatRegister, one.OutVoid()),
              S_OK);
    EXPECT_NE(zero.Get(), one.Get());
    EXPECT_EQ(RefCount(zero), 2u);
    EXPECT_EQ(RefCount(one), 2u);
}

TEST_F(Services, UnsupportedInterfaceLeavesOneExtraReferenceOnTheKeptObject) {
    CatRegisterPtr kept;
    ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister, kept.OutVoid()),
              S_OK);
    ASSERT_EQ(RefCount(kept), 2u);

    void* out = kUntouched;
    EXPECT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_IRegistry, &out),
              E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(RefCount(kept), 3u);
}

TEST_F(Services, UnregisteredIdentifierStoresNothingAndIsTriedAgain) {
    void* out = nullptr;
    EXPECT_EQ(COM_GetService(CLSID_Counter, 0, IID_ICounter, &out), CLASS_E_CLASSNOTAVAILABLE);

    InstallComponent(COMPONENT_testcounter);
    CounterPtr first;
    CounterPtr second;
    ASSERT_EQ(COM_GetService(CLSID_Counter, 0, IID_ICounter, first.OutVoid()), S_OK);
    ASSERT_EQ(COM_GetService(CLSID_Counter, 0, IID_ICounter, second.OutVoid()), S_OK);
    long value = 0;
    ASSERT_EQ(first->Increment(&value), S_OK);
    ASSERT_EQ(second->Increment(&value), S_OK);
    EXPECT_EQ(value, 2);
}

TEST_F(Services, ServiceStoredWhileBeingMadeGivesUnexpectedAndTheNewObject) {
    InstallComponent(COMPONENT_testreentrant);
    UnknownPtr late;
    EXPECT_EQ(COM_GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown,
                             late.OutVoid()),
              E_UNEXPECTED);
    ASSERT_FALSE(late.IsNull());
    // Nobody else holds the late object: the one stored first is kept.
    EXPECT_EQ(RefCount(late), 1u);
    UnknownPtr kept;
    ASSERT_EQ(COM_GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown,
                             kept.OutVoid()),
              S_OK);
    EXPECT_NE(kept.Get(), late.Get());
    EXPECT_EQ(RefCount(kept), 2u);
}
