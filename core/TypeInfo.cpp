// Type information at run time: the tables a component compiles in, reached
// through its GetTypeLibrary entry point. Registration records where each
// interface is described; COM_GetTypeInfo opens that library by the rules of
// activation and reads its tables, which stay valid because libraries stay
// loaded.
#include <dlfcn.h>

#include <string>

#include "coreInternal.h"
#include "libraryTrust.h"
#include "typeInfoInternal.h"

namespace {

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;
using EnumBstrPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;
using EnumClsidPtr = utlAutoIf<COM_IEnumCLSID, &COM_IID_IEnumCLSID>;
using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
typedef HRESULT (*PFNGETTYPELIBRARY)(const COM_TYPELIBRARY** out);

const wchar_t kInterfaceKey[] = L"Interface";
const wchar_t kLibraryValue[] = L"Library";

// The tables behind a library's entry point, when it has them in the layout
// this runtime reads.
const COM_TYPELIBRARY* TypeLibraryOf(void* handle) {
    auto entry = reinterpret_cast<PFNGETTYPELIBRARY>(OwnSymbol(handle, "GetTypeLibrary"));
    const COM_TYPELIBRARY* library = nullptr;
    if (!entry || FAILED(entry(&library)) || !library ||
        library->version != COM_TYPELIBRARY_VERSION)
        return nullptr;
    return library;
}

wchar_t* Copy(const char* text) {
    std::wstring wide;
    AppendWidened(wide, text ? text : "");
    return COM_SysAllocString(wide.c_str());
}

class CTypeInfo : public COM_CImplements<CTypeInfo, COM_ITypeInfo> {
public:
    explicit CTypeInfo(const COM_TYPEINTERFACE& entry) : m_entry(entry) {}

    HRESULT GetName(wchar_t** name) override { return Text(m_entry.name, name); }
    HRESULT GetBase(COM_GUID* iid, wchar_t** name) override {
        if (!iid) return E_POINTER;
        *iid = *m_entry.baseIid;
        return Text(m_entry.baseName, name);
    }
    HRESULT GetMethodCount(unsigned int* count) override {
        if (!count) return E_POINTER;
        *count = m_entry.methodCount;
        return S_OK;
    }
    HRESULT GetMethod(unsigned int method, wchar_t** name, unsigned int* paramCount) override {
        if (!paramCount) return E_POINTER;
        if (method >= m_entry.methodCount) return E_INVALIDARG;
        *paramCount = m_entry.methods[method].paramCount;
        return Text(m_entry.methods[method].name, name);
    }
    HRESULT GetParam(unsigned int method, unsigned int param, wchar_t** name, wchar_t** type,
                     unsigned int* flags) override {
        if (!type || !flags) return E_POINTER;
        if (method >= m_entry.methodCount || param >= m_entry.methods[method].paramCount)
            return E_INVALIDARG;
        const COM_TYPEPARAM& entry = m_entry.methods[method].params[param];
        const HRESULT hr = Text(entry.type, type);
        if (FAILED(hr)) return hr;
        *flags = entry.flags;
        return Text(entry.name, name);
    }

private:
    static HRESULT Text(const char* text, wchar_t** out) {
        if (!out) return E_POINTER;
        try {
            *out = Copy(text);
        } catch (const std::bad_alloc&) {
            *out = nullptr;
        }
        return *out ? S_OK : E_OUTOFMEMORY;
    }

    const COM_TYPEINTERFACE& m_entry;
};

// Writes or removes one interface's entry; registry failures throw.
void UpdateInterface(COM_IRegistry* registry, const COM_TYPEINTERFACE& entry, int reg,
                     const wchar_t* library) {
    CAutoBstr key;
    COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(*entry.iid, key.Out());
    hr = registry->Open(1, L"");
    if (reg) {
        hr = registry->CreateKey(kInterfaceKey, 1);
        hr = registry->CreateKey(key.Get(), 1);
        std::wstring name;
        AppendWidened(name, entry.name);
        hr = registry->SetValueString(L"", name.c_str());
        hr = registry->SetValueString(kLibraryValue, library);
        hr = registry->Close();
        return;
    }
    // Only this library's entry goes: another may describe the interface now.
    CAutoBstr recorded;
    if (FAILED(registry->OpenKey(kInterfaceKey)) || FAILED(registry->OpenKey(key.Get())) ||
        FAILED(registry->GetValueString(kLibraryValue, recorded.Out())) ||
        std::wstring(recorded.Get()) != library) {
        registry->Close();
        return;
    }
    hr = registry->Close();
    hr = registry->Open(1, L"");
    hr = registry->OpenKey(kInterfaceKey);
    hr = registry->DeleteKey(key.Get());
    EnumBstrPtr names;
    unsigned long count = 0;
    hr = registry->EnumKeys(names.Out());
    hr = names->get_Count(&count);
    hr = registry->Close();
    if (count == 0) {
        hr = registry->Open(1, L"");
        hr = registry->DeleteKey(kInterfaceKey);
        hr = registry->Close();
    }
}

// Adds a category with its description, or removes it once no class is left
// in it: classes of other components may still be members.
HRESULT UpdateCategory(COM_ICatRegister* categories, const COM_TYPECATEGORY& entry, int reg) {
    if (reg)
        return entry.description ? categories->RegisterCategory(*entry.catid, entry.description)
                                 : S_OK;
    EnumClsidPtr members;
    if (FAILED(categories->EnumClassesOfCategory(*entry.catid, members.Out()))) return S_OK;
    unsigned long count = 0;
    HRESULT hr = members->get_Count(&count);
    if (FAILED(hr) || count > 0) return hr;
    members.Reset();
    return categories->UnRegisterCategory(*entry.catid);
}

// The library recorded for `iid`, as registered.
HRESULT RecordedLibrary(const COM_GUID& iid, std::wstring& library) {
    RegistryPtr registry;
    CAutoBstr key, value;
    HRESULT hr = registry.CreateInstance(COM_CLSID_Registry);
    if (SUCCEEDED(hr)) hr = COM_CLSIDToString(iid, key.Out());
    if (FAILED(hr)) return hr;
    if (FAILED(registry->Open(1, L"")) || FAILED(registry->OpenKey(kInterfaceKey)) ||
        FAILED(registry->OpenKey(key.Get())) ||
        FAILED(registry->GetValueString(kLibraryValue, value.Out())) || !value.Get()) {
        registry->Close();
        return REGDB_E_KEYMISSING;
    }
    registry->Close();
    library = value.Get();
    return S_OK;
}

}  // namespace

bool UpdateTypeLibraryRegistration(COM_CComModule& module, int reg, bool removeAllowed) {
    if (!reg && !removeAllowed) return true;
    Dl_info info;
    if (!dladdr(&module, &info) || !info.dli_fname) return true;
    // The module's library is loaded already: this takes no new reference.
    void* handle = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) return true;
    const COM_TYPELIBRARY* types = TypeLibraryOf(handle);
    dlclose(handle);
    if (!types) return true;
    try {
        RegistryPtr registry;
        CAutoBstr library;
        COM_HRESULT_EXCEPTION hr = registry.CreateInstance(COM_CLSID_Registry);
        hr = module.GetModuleName(library.Out());
        for (unsigned int i = 0; i < types->interfaceCount; ++i)
            UpdateInterface(registry, types->interfaces[i], reg, library.Get());
        if (types->categoryCount == 0) return true;
        CatRegisterPtr categories;
        hr = categories.CreateInstance(COM_CLSID_CategoryManager);
        bool succeeded = true;
        for (unsigned int i = 0; i < types->categoryCount; ++i)
            if (FAILED(UpdateCategory(categories, types->categories[i], reg))) succeeded = false;
        return succeeded;
    } catch (int) {
        return false;
    }
}

HRESULT COM_GetTypeInfo(const COM_GUID& iid, COM_ITypeInfo** out) {
    if (!out) return E_POINTER;
    *out = nullptr;
    try {
        std::wstring library;
        HRESULT hr = RecordedLibrary(iid, library);
        if (FAILED(hr)) return hr;
        void* handle =
            OpenComponentLibrary(NarrowWide(library.c_str()), L"JCOM_API:COM_GetTypeInfo");
        if (!handle) return CO_E_DLLNOTFOUND;
        const COM_TYPELIBRARY* types = TypeLibraryOf(handle);
        if (!types) return CO_E_ERRORINDLL;
        for (unsigned int i = 0; i < types->interfaceCount; ++i) {
            if (*types->interfaces[i].iid != iid) continue;
            CTypeInfo* info = new (std::nothrow) CTypeInfo(types->interfaces[i]);
            if (!info) return E_OUTOFMEMORY;
            info->AddRef();
            *out = info;
            return S_OK;
        }
        return E_NOINTERFACE;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
