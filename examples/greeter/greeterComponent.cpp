// The greeter component: the greeter class, a member of the component's own
// category, and the decoder that renders the status codes of the greeter's
// facility. Built with veltcom_add_component, so only the four entry points
// leave the library.
#include <cstdio>
#include <set>
#include <string>

#include "greeter.h"

namespace {

using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using EnumClsidPtr = utlAutoIf<COM_IEnumCLSID, &COM_IID_IEnumCLSID>;
using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

const wchar_t kCategoryDescription[] = L"Greeters (sample)";

// Makes `description` the process's current error, located in the greeter,
// and returns hr.
HRESULT Fail(HRESULT hr, std::wstring description) {
    ErrorInfoPtr info;
    if (SUCCEEDED(COM_CreateErrorInfo(info.Out()))) {
        std::wstring location = L"Sample.Greeter";
        info->SetDescription(&description[0]);
        info->SetLocation(&location[0]);
        info->SetHRESULT(hr);
        COM_SetErrorInfo(info);
    }
    return hr;
}

struct Language {
    const wchar_t* code;
    const wchar_t* hello;
};

const Language kLanguages[] = {
    {L"en", L"Hello"}, {L"de", L"Hallo"}, {L"fr", L"Bonjour"}, {L"es", L"Hola"}};

class CGreeter : public ISampleGreeter,
                 public COM_CComObjectRoot,
                 public COM_CComCoClass<CGreeter, &CLSID_SampleGreeter> {
public:
    COM_DECLARE_REGISTRY(L"Sample.Greeter", L"Sample greeter",
                         L"Greets people by name in a few languages")
    COM_IMPLEMENT_REFCOUNT()

    // RegisterServer adds the class to these categories, and removes it again.
    static const COM_GUID* const* GetCategoryMap() {
        static const COM_GUID* const categories[] = {&CATID_SampleGreeters, nullptr};
        return categories;
    }

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown || iid == IID_ISampleGreeter) {
            *out = static_cast<ISampleGreeter*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT SetLanguage(const wchar_t* language) override {
        if (!language) return E_POINTER;
        for (const Language& candidate : kLanguages) {
            if (std::wstring(candidate.code) == language) {
                m_pLanguage = &candidate;
                return S_OK;
            }
        }
        return Fail(GREETER_E_LANGUAGE,
                    L"no greeting known in \"" + std::wstring(language) + L"\"");
    }

    HRESULT Greet(const wchar_t* name, wchar_t** greeting) override {
        if (!greeting) return E_POINTER;
        *greeting = nullptr;
        if (!name || !*name) return Fail(GREETER_E_NONAME, L"Greet was called without a name");
        const std::wstring text = std::wstring(m_pLanguage->hello) + L", " + name + L"!";
        *greeting = COM_SysAllocString(text.c_str());
        if (!*greeting) return E_OUTOFMEMORY;
        return m_greeted.insert(name).second ? S_OK : GREETER_S_AGAIN;
    }

private:
    const Language* m_pLanguage = &kLanguages[0];
    std::set<std::wstring> m_greeted;
};

struct StatusText {
    HRESULT code;
    const wchar_t* text;
};

const StatusText kStatusTexts[] = {
    {GREETER_S_AGAIN, L"Greeted that name before"},
    {GREETER_E_NONAME, L"No name was given to greet"},
    {GREETER_E_LANGUAGE, L"The greeter does not speak that language"},
};

// COM_DecodeHRESULT hands every code of the greeter's facility to this class,
// which it finds as the value "71" of Moniker\hresult.
class CGreeterStatus : public COM_IDecodeHResult,
                       public COM_CComObjectRoot,
                       public COM_CComCoClass<CGreeterStatus, &CLSID_SampleGreeterStatus> {
public:
    static HRESULT UpdateRegistry(int reg) {
        return g_theModule.UpdateRegistryClass(GetObjectCLSID(), L"Sample.GreeterStatus", 0, reg,
                                               L"Sample greeter status texts", nullptr,
                                               L"hresult", GREETER_FACILITY_NAME);
    }
    COM_IMPLEMENT_REFCOUNT()

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown || iid == COM_IID_IDecodeHResult) {
            *out = static_cast<COM_IDecodeHResult*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }

    // The text and the code in brackets, as the runtime writes its own; S_FALSE
    // with a generic text for a code of the facility that has none.
    HRESULT DecodeHResult(int hr, unsigned int, wchar_t** text) override {
        if (!text) return E_POINTER;
        const wchar_t* message = L"Unknown greeter status";
        HRESULT result = S_FALSE;
        for (const StatusText& entry : kStatusTexts) {
            if (entry.code == hr) {
                message = entry.text;
                result = S_OK;
            }
        }
        wchar_t buffer[128];
        std::swprintf(buffer, sizeof buffer / sizeof buffer[0], L"%ls [%8X]", message,
                      static_cast<unsigned int>(hr));
        *text = COM_SysAllocString(buffer);
        return *text ? result : E_OUTOFMEMORY;
    }
};

// Removes the category once no class is left in it: another component may
// still have classes there.
HRESULT RemoveCategoryIfEmpty() {
    CatRegisterPtr categories;
    HRESULT hr = categories.CreateInstance(COM_CLSID_CategoryManager);
    if (FAILED(hr)) return hr;
    EnumClsidPtr members;
    // No category key at all: nothing to remove.
    if (FAILED(categories->EnumClassesOfCategory(CATID_SampleGreeters, members.Out()))) return S_OK;
    unsigned long count = 0;
    hr = members->get_Count(&count);
    if (FAILED(hr) || count > 0) return hr;
    members.Reset();
    return categories->UnRegisterCategory(CATID_SampleGreeters);
}

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY(CLSID_SampleGreeter, CGreeter)
COM_OBJECT_ENTRY(CLSID_SampleGreeterStatus, CGreeterStatus)
COM_END_OBJECT_MAP()

// The four entry points are written out rather than taken from
// COM_DEFINE_MODULE: the category's description belongs to the component,
// not to a class, so registration adds it after the classes and their
// memberships, and unregistration takes it away once the category is empty.
// VELTCOM_COMPONENT_FILE is the library's file name, set by
// veltcom_add_component.
COM_CComModule g_theModule(s_objectMap, VELTCOM_COMPONENT_FILE);

extern "C" HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out) {
    return g_theModule.GetClassObject(clsid, iid, out);
}

extern "C" HRESULT CanUnloadNow() { return g_theModule.CanUnloadNow(); }

extern "C" HRESULT DllRegisterServer() {
    HRESULT result = g_theModule.RegisterServer(1);
    CatRegisterPtr categories;
    if (FAILED(categories.CreateInstance(COM_CLSID_CategoryManager)) ||
        FAILED(categories->RegisterCategory(CATID_SampleGreeters, kCategoryDescription)))
        result = S_FALSE;
    return result;
}

extern "C" HRESULT DllUnregisterServer() {
    HRESULT result = g_theModule.RegisterServer(0);
    if (FAILED(RemoveCategoryIfEmpty())) result = S_FALSE;
    return result;
}
