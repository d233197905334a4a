// The shared library's binary surface, as a component or application binds
// to it: plain names for the flat functions and identifiers, mangled names
// for the C++ functions, and nothing internal.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "comBase.h"

namespace {

class SharedLibrary : public ::testing::Test {
protected:
    void SetUp() override {
        m_handle = dlopen(VELTCOM_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_handle, nullptr) << dlerror();
    }
    void TearDown() override {
        if (m_handle) dlclose(m_handle);
    }
    void* Symbol(const char* name) const { return dlsym(m_handle, name); }

    void* m_handle = nullptr;
};

// The exported identifiers. Components compare against their bytes, so every
// byte is part of the contract: the test hashes the sixteen bytes of each, in
// this order (FNV-1a), and a single changed byte changes the digest. Update
// the digest only when a stated identifier really changes.
const char* const kIdentifiers[] = {
    "COM_IID_IUnknown", "COM_IID_IClassFactory", "COM_IID_IErrorInfo", "COM_IID_ICreateErrorInfo",
    "COM_IID_IRegistry", "COM_IID_IRegistryTransaction", "COM_IID_IEnumBSTR", "COM_IID_IMemory",
    "COM_IID_ICatRegister", "COM_IID_ICatInformation", "COM_IID_IEnumCATEGORYINFO", "COM_IID_IEnumCLSID",
    "COM_IID_IMoniker", "COM_IID_IMonikerData", "COM_IID_IDecodeHResult", "COM_CLSID_Registry",
    "COM_CLSID_CategoryManager", "COM_CLSID_Memory", "COM_CLSID_HResultDecoderBinder",
    "COM_CATID_UrlHandlers", "COM_CATID_ServiceInfoProviders", "COM_CATID_ResourceProviders",
    "COM_CATID_LanguageParsers", "COM_GUID_NULL",
};
constexpr uint32_t kIdentifierDigest = 3888893965u;

const char* const kFlatFunctions[] = {
    "COM_Initialize", "COM_Uninitialize", "COM_CreateErrorInfo", "COM_GetErrorInfo",
    "COM_SetErrorInfo", "COM_ClearErrorInfo", "COM_SysAllocString", "COM_SysAllocStringLen",
    "COM_SysAllocStringByteLen", "COM_SysReAllocString", "COM_SysReAllocStringLen",
    "COM_SysFreeString", "COM_SysStringLen", "COM_SysStringByteLen", "COM_TaskMemAlloc",
    "COM_TaskMemFree", "COM_GetSysStats", "COM_ResetSysStats", "COM_CLSIDToString",
    "COM_StringToCLSID", "COM_GenerateCLSID",
    "COM_MkParseName", "COM_DecodeHRESULT", "COM_GetTypeInfo",
    "COM_GetService", "COM_CreateInstance", "COM_GetClassFactory", "COM_GetCLSIDFromProgID",
    "COM_GetProgIDFromClsid", "COM_GetDisplayNameFromClsid", "COM_GetDescriptionFromClsid",
    "GetClassObject", "CanUnloadNow", "DllRegisterServer", "DllUnregisterServer",
};

}  // namespace

// Identifier constants, with their values, and flat functions.
TEST_F(SharedLibrary, IdentifiersAndFlatFunctionsAreExportedUnderPlainNames) {
    uint32_t digest = 2166136261u;
    for (const char* name : kIdentifiers) {
        const auto* bytes = static_cast<const unsigned char*>(Symbol(name));
        ASSERT_NE(bytes, nullptr) << name;
        for (size_t i = 0; i < sizeof(COM_GUID); ++i) digest = (digest ^ bytes[i]) * 16777619u;
    }
    EXPECT_EQ(digest, kIdentifierDigest);
    for (const char* name : kFlatFunctions) EXPECT_NE(Symbol(name), nullptr) << name;
}

TEST_F(SharedLibrary, CxxFunctionsAreExportedUnderMangledNames) {
    EXPECT_NE(Symbol("_Z23COM_RegisterExitHandlerPFvvEi"), nullptr);
    EXPECT_NE(Symbol("_Z21COM_HRESULT_ExpansionB5cxx11i"), nullptr);
    EXPECT_EQ(Symbol("COM_RegisterExitHandler"), nullptr);
    EXPECT_EQ(Symbol("COM_HRESULT_Expansion"), nullptr);
}

TEST_F(SharedLibrary, InternalsStayHidden) {
    EXPECT_EQ(Symbol("_Z14WidenMultibytePKcmPw"), nullptr);
    EXPECT_EQ(Symbol("g_theModule"), nullptr);
    // The implementing members are part of the surface.
    EXPECT_NE(Symbol("_ZN17CComPlatformUtils18COM_SysAllocStringEPKw"), nullptr);
    EXPECT_NE(Symbol("_ZN16CComClassFactory15GetClassFactoryERK9_COM_GUIDPPv"), nullptr);
    EXPECT_NE(Symbol("_ZN14COM_CComModule14RegisterServerEi"), nullptr);
    // The object map and the loaded-library map stay inside.
    EXPECT_EQ(Symbol("s_com_object_mapZarvoCOM"), nullptr);
}

TEST_F(SharedLibrary, StringsMadeThroughTheLibraryHaveTheContractLayout) {
    using Alloc = wchar_t* (*)(const wchar_t*);
    using Free = int (*)(wchar_t*);
    auto alloc = reinterpret_cast<Alloc>(Symbol("COM_SysAllocString"));
    auto release = reinterpret_cast<Free>(Symbol("COM_SysFreeString"));
    ASSERT_TRUE(alloc && release);
    wchar_t* s = alloc(L"hello");
    uint64_t prefix;
    std::memcpy(&prefix, reinterpret_cast<unsigned char*>(s) - 8, sizeof prefix);
    EXPECT_EQ(prefix, 20u);
    EXPECT_EQ(s[5], L'\0');
    EXPECT_EQ(release(s), 1);
}
