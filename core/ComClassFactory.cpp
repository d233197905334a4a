// Activation: class lookup through the built-in object map, the libraries
// loaded earlier and the registry; loading of component libraries; ProgID
// and class description lookups.
#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <cwchar>
#include <map>
#include <mutex>
#include <string>

#include "coreInternal.h"
#include "libraryTrust.h"
#include "categoriesInternal.h"
#include "memoryInternal.h"
#include "regRegistry.h"

namespace {

typedef HRESULT (*PFNGETCLASSOBJECT)(const COM_GUID& clsid, const COM_GUID& iid, void** out);

// Wide text against the registry's own 16-bit text, character by character:
// a name is looked up as the registry holds it, with no wide copy made. The
// order is that of the wide strings, since widening keeps every value.
struct CLibraryNameOrder {
    using is_transparent = void;

    template <class A, class B>
    bool operator()(const A& a, const B& b) const {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                            [](long x, long y) { return x < y; });
    }
};

// Keyed by the InprocServer32 text exactly as registered. Libraries are
// never closed, so the entries stay valid for the life of the process.
std::map<std::wstring, PFNGETCLASSOBJECT, CLibraryNameOrder> g_dllMap;
// Guards the map alone, never a load: the loader holds a lock of its own
// while library constructors run, and a constructor may activate a class. The
// loader opens a file once however many threads ask, and the map keeps the
// first entry made for a name.
std::mutex g_dllMapLock;

const wchar_t kErrorLocation[] = L"JCOM_API:COM_CreateInstance";

// Path buffers, as for the directory and the working directory: 4096
// characters and a terminator.
const size_t kPathBufferSize = 4097;

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;
using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

// Makes a new error-information object with the given location and
// description current. A failure to make it is ignored: the caller's status
// is reported all the same.
void SetErrorAt(const wchar_t* where, const std::wstring& description) {
    ErrorInfoPtr info;
    if (FAILED(COM_CreateErrorInfo(info.Out()))) return;
    std::wstring text = description;
    std::wstring location = where;
    info->SetDescription(&text[0]);
    info->SetLocation(&location[0]);
    COM_SetErrorInfo(info);
}

void SetClassNotAvailableError(const COM_GUID& clsid) {
    wchar_t* text = nullptr;
    if (SUCCEEDED(COM_CLSIDToString(clsid, &text))) SetErrorAt(kErrorLocation, text);
    COM_SysFreeString(text);
}

// Reports a library that could not be loaded. The description names the path
// that was opened, since the registered name may point elsewhere; the
// loader's own text usually starts with it already.
void SetLoadError(const wchar_t* where, const std::string& path, std::string description) {
    if (description.compare(0, path.size() + 1, path + ":") != 0)
        description = path + ": " + description;
    try {
        SetErrorAt(where, a2wStr(description.c_str(), description.size(), 0));
    } catch (const std::bad_alloc&) {
        // A text the locale cannot convert leaves no error information; the
        // load failure is reported all the same.
    }
}

// The part of a library name after its last slash: libraries are always
// opened by base name from the working directory.
const char* BaseName(const std::string& name) {
    size_t slash = name.rfind('/');
    return slash == std::string::npos ? name.c_str() : name.c_str() + slash + 1;
}

// Loads the library, with no lock of the runtime held, and remembers its
// GetClassObject; null on failure, with `hr` set. Threads that load the same
// library at once get the one entry remembered first.
PFNGETCLASSOBJECT LoadLibrary(const RegString& name, HRESULT& hr) {
    hr = CO_E_DLLNOTFOUND;
    void* handle = OpenComponentLibrary(NarrowWide(WidenUtf16(name.data(), name.size()).c_str()),
                                        kErrorLocation);
    if (!handle) return nullptr;
    void* getClassObject = OwnSymbol(handle, "GetClassObject");
    void* canUnloadNow = OwnSymbol(handle, "CanUnloadNow");
    if (!getClassObject || !canUnloadNow) {
        dlclose(handle);
        hr = CO_E_ERRORINDLL;
        return nullptr;
    }
    auto entry = reinterpret_cast<PFNGETCLASSOBJECT>(getClassObject);
    std::lock_guard<std::mutex> lock(g_dllMapLock);
    // The map is keyed code unit by code unit, as it is searched.
    return g_dllMap.emplace(std::wstring(name.begin(), name.end()), entry).first->second;
}

// Reads the default value of the key below hive 1 that `keys` lead to, one
// Open or OpenKey argument each; the registry object is made on first use.
// Any failure on the way means the same: the class or ProgID is not there.
HRESULT ReadClassesValue(std::initializer_list<const XMLCh*> keys, RegString& value) {
    RegistryPtr registry;
    if (FAILED(CXMLRegistry::CreateInstance(COM_IID_IRegistry, registry.OutVoid())))
        return CLASS_E_CLASSNOTAVAILABLE;
    CXMLRegistry* xmlRegistry = static_cast<CXMLRegistry*>(registry.Get());
    return SUCCEEDED(xmlRegistry->ReadDefaultValue(1, keys, value)) ? S_OK : CLASS_E_CLASSNOTAVAILABLE;
}

// The default value of CLSID\<class>\<name>.
HRESULT ReadClassValue(const COM_GUID& clsid, const XMLCh* name, RegString& value) {
    XMLCh text[kClassIdLength + 1];
    FormatClassId(clsid, text);
    return ReadClassesValue({u"CLSID", text, name}, value);
}

// A name as the registry's operations take it; false when even that copy
// cannot be made, which the callers report as a name that is not there.
bool Escaped(const wchar_t* name, RegString& escaped) {
    try {
        escaped = EscapeKey(name);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

void* OpenComponentLibrary(const std::string& name, const wchar_t* location) {
    char path[kPathBufferSize];
    int length = std::snprintf(path, sizeof path, "./%s", BaseName(name));
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        SetLoadError(location, std::string("./") + BaseName(name), "library name too long");
        return nullptr;
    }
    // A library's constructors run as soon as it is opened: refuse first.
    const std::string refusal = LibraryRefusal(path);
    if (!refusal.empty()) {
        SetLoadError(location, path,
                     "refused, " + refusal + " (VELTCOM_ALLOW_INSECURE_LIBRARIES=1 loads it anyway)");
        return nullptr;
    }
    void* handle = dlopen(path, RTLD_LAZY | RTLD_GLOBAL);
    if (!handle) {
        // The loader's text, as much of it as its 256-byte buffer held.
        const char* text = dlerror();
        SetLoadError(location, path, std::string(text ? text : "").substr(0, 256));
    }
    return handle;
}

const COM_OBJMAP_ENTRY s_com_object_mapZarvoCOM[] = {
    COM_OBJECT_ENTRY(COM_CLSID_Registry, CXMLRegistry)
    COM_OBJECT_ENTRY(COM_CLSID_CategoryManager, CCatMgr)
    COM_OBJECT_ENTRY(COM_CLSID_Memory, CMemory)
    COM_OBJECT_ENTRY(COM_CLSID_HResultDecoderBinder, CHResultDecoderBinder)
    {nullptr, nullptr, nullptr, nullptr},
};

HRESULT CComClassFactory::StaticGetClassObject(const COM_GUID& clsid, const COM_GUID& iid,
                                               void** out) {
    return g_theModule.GetClassObject(clsid, iid, out);
}

HRESULT CComClassFactory::GetClassFactory(const COM_GUID& clsid, void** factory) {
    if (!factory) return E_POINTER;
    // Built-in classes never touch the registry.
    HRESULT hr = StaticGetClassObject(clsid, COM_IID_IClassFactory, factory);
    if (SUCCEEDED(hr)) return hr;

    RegString name;
    if (FAILED(ReadClassValue(clsid, u"InprocServer32", name))) {
        SetClassNotAvailableError(clsid);
        return CLASS_E_CLASSNOTAVAILABLE;
    }

    PFNGETCLASSOBJECT getClassObject = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_dllMapLock);
        auto known = g_dllMap.find(RegStringView(name));
        if (known != g_dllMap.end()) getClassObject = known->second;
    }
    if (!getClassObject) getClassObject = LoadLibrary(name, hr);
    if (!getClassObject) return hr;
    return getClassObject(clsid, COM_IID_IClassFactory, factory);
}

HRESULT CComClassFactory::CreateInstance(const COM_GUID& clsid, COM_IUnknown*,
                                         const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    utlAutoIf<COM_IClassFactory, &COM_IID_IClassFactory> factory;
    HRESULT hr = GetClassFactory(clsid, factory.OutVoid());
    if (FAILED(hr)) return hr;
    // A factory that reported success without an object is a broken
    // invariant: dereferencing it throws.
    return factory->CreateInstance(iid, out);
}

HRESULT CComClassFactory::GetValueFromClsid(const COM_GUID& clsid, const wchar_t* name,
                                            wchar_t** value) {
    if (!name || !value) return E_POINTER;
    RegString escaped, text;
    if (!Escaped(name, escaped) || FAILED(ReadClassValue(clsid, escaped.c_str(), text)))
        return CLASS_E_CLASSNOTAVAILABLE;
    wchar_t* copy = AllocWidened(text.c_str());
    if (!copy) return CLASS_E_CLASSNOTAVAILABLE;
    *value = copy;
    return S_OK;
}

HRESULT CComClassFactory::GetProgIDFromClsid(const COM_GUID& clsid, wchar_t** value) {
    return GetValueFromClsid(clsid, L"ProgID", value);
}

HRESULT CComClassFactory::GetDisplayNameFromClsid(const COM_GUID& clsid, wchar_t** value) {
    return GetValueFromClsid(clsid, L"DisplayName", value);
}

HRESULT CComClassFactory::GetDescriptionFromClsid(const COM_GUID& clsid, wchar_t** value) {
    return GetValueFromClsid(clsid, L"Description", value);
}

HRESULT CComClassFactory::GetCLSIDFromProgID(wchar_t* progId, COM_GUID* clsid) {
    if (!progId || !clsid) return E_POINTER;
    RegString escaped, text;
    if (!Escaped(progId, escaped) || FAILED(ReadClassesValue({escaped.c_str(), u"CLSID"}, text)) ||
        FAILED(ParseClassId(text.c_str(), *clsid)))
        return CLASS_E_CLASSNOTAVAILABLE;
    return S_OK;
}

HRESULT CComClassFactory::FreeUnusedLibraries() {
    // Libraries stay loaded for the life of the process.
    return S_OK;
}

namespace {

// Reads the binder class registered for a moniker prefix. Whatever goes wrong
// on the way means the same to the caller: no binder for this prefix.
HRESULT FindBinderClass(const wchar_t* prefix, COM_GUID& clsid) {
    RegString escaped, text;
    if (!Escaped(prefix, escaped) || FAILED(ReadClassesValue({u"Moniker", escaped.c_str()}, text)) ||
        FAILED(ParseClassId(text.c_str(), clsid)))
        return CLASS_E_CLASSNOTAVAILABLE;
    return S_OK;
}

}  // namespace

HRESULT CComClassFactory::MkParseName(wchar_t* name, unsigned long* eaten,
                                      COM_IMoniker** moniker) {
    if (!name || !eaten || !moniker) return E_POINTER;
    const wchar_t* colon = std::wcschr(name, L':');
    if (!colon || colon == name) return CLASS_E_CLASSNOTAVAILABLE;
    try {
        const std::wstring prefix(name, colon - name);
        COM_GUID binder;
        if (FAILED(FindBinderClass(prefix.c_str(), binder))) return CLASS_E_CLASSNOTAVAILABLE;
        // The prefix and its colon count as consumed even when the binder
        // then cannot be created.
        *eaten = prefix.size() + 1;
        return COM_CreateInstance(binder, nullptr, COM_IID_IMoniker,
                                  reinterpret_cast<void**>(moniker));
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
