// The service collection's key: the identifier text followed by the number
// in unsigned decimal. The rest of its rules are seen through COM_GetService
// in shared_services.cpp.
#include <gtest/gtest.h>

#include "core/coreInternal.h"
#include "testSupport.h"

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;
using ServiceCollection = TempDirTest;

TEST_F(ServiceCollection, KeyIsTheIdentifierTextAndTheUnsignedNumber) {
    // No class is registered under this identifier.
    const COM_GUID service = {0x5E4F1CE0, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x01}};
    UnknownPtr object, found;
    ASSERT_EQ(object.CreateInstance(COM_CLSID_CategoryManager), S_OK);
    CServiceCollection services;
    std::wstring key = TextOf(service) + L"4294967295";
    ASSERT_EQ(services.Add(key, object), 1);
    ASSERT_EQ(services.GetService(service, 4294967295u, COM_IID_IUnknown, found.OutVoid()), S_OK);
    EXPECT_EQ(found.Get(), object.Get());
}
