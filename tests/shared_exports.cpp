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

struct IdentifierExport {
    const char* name;
    COM_GUID value;
};

const IdentifierExport kIdentifiers[] = {
    {"COM_IID_IUnknown", {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}}},
    {"COM_IID_IClassFactory", {0x00000002, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x50}}},
    {"COM_IID_IErrorInfo", {0xE2A24480, 0x2384, 0x11D3, {0xA0, 0x4C, 0x00, 0x80, 0xC7, 0x4A, 0xF1, 0x9F}}},
    {"COM_IID_ICreateErrorInfo", {0xA079DD7E, 0xC387, 0x11D3, {0x95, 0x67, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_IRegistry", {0xDB24C5E0, 0x8E70, 0x4108, {0xBB, 0x28, 0x45, 0x14, 0x71, 0x1F, 0xE5, 0x94}}},
    {"COM_IID_IRegistryTransaction", {0x0DEF7A01, 0xABDD, 0x4C8D, {0xB1, 0xD3, 0x84, 0x82, 0xC4, 0x18, 0x3B, 0x9C}}},
    {"COM_IID_IEnumBSTR", {0x60FA8BA3, 0x403D, 0x4DA8, {0x9C, 0x77, 0x09, 0xED, 0x95, 0x23, 0x0B, 0x73}}},
    {"COM_IID_IMemory", {0xFB890D5A, 0x7285, 0x11D3, {0x95, 0x34, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_ICatRegister", {0xE6AFFC72, 0xB286, 0x11D3, {0x95, 0x60, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_ICatInformation", {0x057C9976, 0xB28C, 0x11D3, {0x95, 0x60, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_IEnumCATEGORYINFO", {0x10F125E2, 0xB28C, 0x11D3, {0x95, 0x60, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_IEnumCLSID", {0x145E8742, 0xB28C, 0x11D3, {0x95, 0x60, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_IMoniker", {0xD6E84124, 0xBD5C, 0x11D3, {0x95, 0x66, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_IMonikerData", {0xD6E84125, 0xBD5C, 0x11D3, {0x95, 0x66, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_IID_IDecodeHResult", {0x7B8C01AF, 0x30AA, 0x4E47, {0xBB, 0x03, 0x6C, 0x6C, 0x35, 0x4F, 0x9C, 0xFD}}},
    {"COM_CLSID_Registry", {0xCFDD5D0F, 0xB1AE, 0x48C0, {0xA1, 0x80, 0x54, 0x29, 0x8F, 0xB2, 0x3B, 0x95}}},
    {"COM_CLSID_CategoryManager", {0xD6A1A65A, 0xB286, 0x11D3, {0x95, 0x60, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_CLSID_Memory", {0x1D371AC0, 0x74F0, 0x11D3, {0x89, 0xEC, 0, 0, 0, 0, 0, 0}}},
    {"COM_CLSID_HResultDecoderBinder", {0x53CEC1E2, 0x60FE, 0x45B4, {0xAA, 0x3A, 0xE2, 0xF0, 0x91, 0xC5, 0x8E, 0x0A}}},
    {"COM_CATID_UrlHandlers", {0xDC0DE3F0, 0x0A83, 0x4EBD, {0xA4, 0xE2, 0x72, 0x7E, 0x40, 0xC3, 0xAE, 0xA1}}},
    {"COM_CATID_ServiceInfoProviders", {0x1328E966, 0xFDE8, 0x4869, {0xA0, 0xBC, 0xE9, 0x8A, 0xF0, 0x77, 0x1F, 0x01}}},
    {"COM_CATID_ResourceProviders", {0x2269D5ED, 0xA2F7, 0x4211, {0xB6, 0x74, 0xB7, 0x5C, 0x7D, 0xB1, 0xE6, 0x4C}}},
    {"COM_CATID_LanguageParsers", {0xFB407D7E, 0xB290, 0x11D3, {0x95, 0x60, 0x00, 0xC0, 0x4F, 0x60, 0xB2, 0xF5}}},
    {"COM_GUID_NULL", {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}}},
};

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
    for (const IdentifierExport& expected : kIdentifiers) {
        const void* symbol = Symbol(expected.name);
        ASSERT_NE(symbol, nullptr) << expected.name;
        EXPECT_EQ(std::memcmp(symbol, &expected.value, sizeof(COM_GUID)), 0) << expected.name;
    }
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
