// The service collection's own rules: how a service is keyed, that a key is
// stored once, and that the collection gives back its references in key
// order.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/coreInternal.h"
#include "testSupport.h"

namespace {

const COM_GUID kService = {0x5E4F1CE0, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x01}};

// Counts its references and notes its name in `released` when the
// collection lets go of it.
class CProbe : public COM_IUnknown {
public:
    CProbe(const char* name, std::vector<std::string>* released)
        : m_name(name), m_released(released) {}

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (iid == COM_IID_IUnknown) {
            *out = this;
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    unsigned long AddRef() override { return ++m_cRef; }
    unsigned long Release() override {
        if (m_released) m_released->push_back(m_name);
        return --m_cRef;
    }

    unsigned long m_cRef = 1;

private:
    std::string m_name;
    std::vector<std::string>* m_released;
};

std::wstring KeyOf(const COM_GUID& id, const wchar_t* number) {
    wchar_t* text = nullptr;
    COM_CLSIDToString(id, &text);
    std::wstring key = std::wstring(text) + number;
    COM_SysFreeString(text);
    return key;
}

}  // namespace

using ServiceCollection = TempDirTest;

TEST_F(ServiceCollection, KeyIsTheIdentifierTextFollowedByTheUnsignedNumber) {
    CProbe probe("probe", nullptr);
    CServiceCollection services;
    std::wstring key = KeyOf(kService, L"4294967295");
    ASSERT_EQ(services.Add(key, &probe), 1);

    // Found under that key, so no activation is tried for the identifier.
    void* out = nullptr;
    ASSERT_EQ(services.GetService(kService, 4294967295u, COM_IID_IUnknown, &out), S_OK);
    EXPECT_EQ(out, &probe);
    EXPECT_EQ(probe.m_cRef, 3u);
    probe.Release();
}

TEST_F(ServiceCollection, KeyIsStoredOnceAndTheFirstObjectStays) {
    CProbe first("first", nullptr);
    CProbe second("second", nullptr);
    CServiceCollection services;
    std::wstring key = KeyOf(kService, L"0");
    ASSERT_EQ(services.Add(key, &first), 1);
    EXPECT_EQ(services.Add(key, &second), 0);
    EXPECT_EQ(second.m_cRef, 1u);

    COM_IUnknown* found = nullptr;
    ASSERT_EQ(services.Get(key, &found), 1);
    EXPECT_EQ(found, &first);
    EXPECT_EQ(first.m_cRef, 3u);
    found->Release();

    std::wstring missing = KeyOf(kService, L"1");
    COM_IUnknown* untouched = &second;
    EXPECT_EQ(services.Get(missing, &untouched), 0);
    EXPECT_EQ(untouched, &second);
}

TEST_F(ServiceCollection, DestructionReleasesEachServiceOnceInKeyOrder) {
    std::vector<std::string> released;
    CProbe ten("ten", &released);
    CProbe two("two", &released);
    CProbe one("one", &released);
    {
        CServiceCollection services;
        std::wstring keyTen = KeyOf(kService, L"10");
        std::wstring keyTwo = KeyOf(kService, L"2");
        std::wstring keyOne = KeyOf(kService, L"1");
        services.Add(keyTen, &ten);
        services.Add(keyTwo, &two);
        services.Add(keyOne, &one);
    }
    // Keys compare as text: "1" < "10" < "2".
    EXPECT_EQ(released, (std::vector<std::string>{"one", "ten", "two"}));
    EXPECT_EQ(one.m_cRef, 1u);
    EXPECT_EQ(ten.m_cRef, 1u);
    EXPECT_EQ(two.m_cRef, 1u);
}
