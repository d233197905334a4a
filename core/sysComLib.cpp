// Module objects and self-registration: writing and removing a class's
// registry entries, counting installations.
#include <climits>
#include <cwchar>

#include "coreInternal.h"
#include "typeInfoInternal.h"

COM_CComModule g_theModule(s_com_object_mapZarvoCOM, "libveltcom.so");

namespace {

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;
using TransactionPtr = utlAutoIf<COM_IRegistryTransaction, &COM_IID_IRegistryTransaction>;
using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using EnumBstrPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;

// What one class writes into the registry, in text form.
struct ClassEntries {
    const wchar_t* classKey;
    const wchar_t* progId;
    const wchar_t* displayName;
    const wchar_t* description;
    const wchar_t* monikerName;
    const wchar_t* monikerValueNames;
};

// Calls f with every comma-separated piece of list, empty pieces included.
template <class F>
void ForEachPiece(const wchar_t* list, F f) {
    for (const wchar_t* start = list;;) {
        const wchar_t* comma = std::wcschr(start, L',');
        const std::wstring piece = comma ? std::wstring(start, comma) : std::wstring(start);
        f(piece.c_str());
        if (!comma) return;
        start = comma + 1;
    }
}

void OpenClassKey(COM_IRegistry* registry, const wchar_t* classKey) {
    COM_HRESULT_EXCEPTION hr = registry->Open(1, L"");
    hr = registry->OpenKey(L"CLSID");
    hr = registry->OpenKey(classKey);
}

// Creates (or opens) `name` below the current key and sets its default value.
void SetSubkeyDefault(COM_IRegistry* registry, const wchar_t* name, const wchar_t* value) {
    COM_HRESULT_EXCEPTION hr = registry->CreateKey(name, 1);
    hr = registry->SetValueString(L"", value);
}

// The count is read as text: a key's default value always reads back as a
// string. A missing or unreadable count is 0.
unsigned int ReadInstallCount(COM_IRegistry* registry) {
    CAutoBstr text;
    if (FAILED(registry->GetValueString(L"", text.Out())) || !text.Get()) return 0;
    wchar_t* end = nullptr;
    const unsigned long count = std::wcstoul(text.Get(), &end, 10);
    if (end == text.Get() || *end != L'\0' || count > UINT_MAX) return 0;
    return static_cast<unsigned int>(count);
}

bool HasMonikers(const ClassEntries& c) { return c.monikerName && c.monikerValueNames; }

void OpenMonikerKey(COM_IRegistry* registry, const wchar_t* monikerName) {
    COM_HRESULT_EXCEPTION hr = registry->Open(1, L"");
    hr = registry->CreateKey(L"Moniker", 1);
    hr = registry->CreateKey(monikerName, 1);
}

void RegisterClassEntries(COM_IRegistry* registry, const ClassEntries& c,
                          const wchar_t* moduleName) {
    COM_HRESULT_EXCEPTION hr = registry->Open(1, L"");
    hr = registry->CreateKey(L"CLSID", 1);
    SetSubkeyDefault(registry, c.classKey, c.progId);
    SetSubkeyDefault(registry, L"InprocServer32", moduleName);
    hr = registry->Close();

    OpenClassKey(registry, c.classKey);
    SetSubkeyDefault(registry, L"ProgID", c.progId);
    hr = registry->Close();

    OpenClassKey(registry, c.classKey);
    hr = registry->CreateKey(L"InstallCount", 1);
    hr = registry->SetValueDWORD(L"", ReadInstallCount(registry) + 1);
    hr = registry->Close();

    if (c.displayName) {
        OpenClassKey(registry, c.classKey);
        SetSubkeyDefault(registry, L"DisplayName", c.displayName);
        hr = registry->Close();
    }
    if (c.description) {
        OpenClassKey(registry, c.classKey);
        SetSubkeyDefault(registry, L"Description", c.description);
        hr = registry->Close();
    }
    if (HasMonikers(c)) {
        OpenMonikerKey(registry, c.monikerName);
        ForEachPiece(c.monikerValueNames, [&](const wchar_t* piece) {
            hr = registry->SetValueString(piece, c.classKey);
        });
        hr = registry->Close();
    }

    hr = registry->Open(1, L"");
    hr = registry->CreateKey(c.progId, 1);
    SetSubkeyDefault(registry, L"CLSID", c.classKey);
    hr = registry->Close();
}

// Whether CLSID holds anything after a class key was removed.
bool ClassKeysRemain(COM_IRegistry* registry) {
    COM_HRESULT_EXCEPTION hr = registry->OpenKey(L"CLSID");
    EnumBstrPtr names;
    hr = registry->EnumKeys(names.Out());
    unsigned long count = 0;
    hr = names->get_Count(&count);
    return count != 0;
}

HRESULT UnregisterClassEntries(COM_IRegistry* registry, const ClassEntries& c) {
    OpenClassKey(registry, c.classKey);
    COM_HRESULT_EXCEPTION hr = registry->CreateKey(L"InstallCount", 1);
    unsigned int count = ReadInstallCount(registry);
    if (count != 0) {
        hr = registry->SetValueDWORD(L"", --count);
        if (count != 0) {
            // Other installations still use the class.
            hr = registry->Close();
            return S_FALSE;
        }
    }
    hr = registry->Close();

    hr = registry->Open(1, L"");
    hr = registry->OpenKey(L"CLSID");
    hr = registry->DeleteKey(c.classKey);

    if (HasMonikers(c)) {
        OpenMonikerKey(registry, c.monikerName);
        ForEachPiece(c.monikerValueNames, [&](const wchar_t* piece) {
            hr = registry->DeleteValue(piece);
        });
        hr = registry->Close();
    }

    hr = registry->Open(1, L"");
    hr = registry->DeleteKey(c.progId);
    const bool remain = ClassKeysRemain(registry);
    hr = registry->Close();
    if (remain) return S_OK;

    // The last class is gone: the empty-named key is removed too. An empty
    // path never resolves, so the result of this deletion is not looked at.
    hr = registry->Open(1, L"");
    registry->DeleteKey(L"");
    hr = registry->Close();
    return S_OK;
}

// Adds or removes the class's category memberships. Returns false when any
// step failed.
bool UpdateClassCategories(const COM_OBJMAP_ENTRY& entry, int reg, bool categoriesAllowed,
                           CatRegisterPtr& catRegister) {
    const COM_GUID* const* categories =
        entry.pfnGetCategoryMap ? entry.pfnGetCategoryMap() : nullptr;
    if (!categories) return true;
    // A failed creation is tried again by the next class that needs it.
    if (catRegister.IsNull() && FAILED(catRegister.CreateInstance(COM_CLSID_CategoryManager)))
        return false;
    bool succeeded = true;
    for (; *categories; ++categories) {
        HRESULT hr = S_OK;
        if (reg)
            hr = catRegister->RegisterClassInCategory(**categories, *entry.pclsid);
        else if (categoriesAllowed)
            hr = catRegister->UnRegisterClassInCategory(**categories, *entry.pclsid);
        if (FAILED(hr)) succeeded = false;
    }
    return succeeded;
}

}  // namespace

HRESULT COM_CComModule::GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out) {
    for (const COM_OBJMAP_ENTRY* entry = m_pObjectMap; entry && entry->pclsid; ++entry) {
        if (*entry->pclsid == clsid) return entry->pFactory->QueryInterface(iid, out);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT COM_CComModule::GetModuleName(wchar_t** name) {
    if (!name) return E_POINTER;
    std::wstring wide;
    AppendWidened(wide, m_pszModuleName);
    *name = COM_SysAllocString(wide.c_str());
    return *name ? S_OK : E_OUTOFMEMORY;
}

HRESULT COM_CComModule::GetModulePath(wchar_t** path) {
    if (!path) return E_POINTER;
    *path = COM_SysAllocString(L"");
    return *path ? S_OK : E_OUTOFMEMORY;
}

// The whole object map is one transaction: another installer never sees
// half of it, and a process killed in the middle leaves the file as it was.
// The steps that succeeded are committed even when others failed.
HRESULT COM_CComModule::RegisterServer(int reg) {
    TransactionPtr transaction;
    HRESULT hr = transaction.CreateInstance(COM_CLSID_Registry);
    if (SUCCEEDED(hr)) hr = transaction->Begin();
    if (FAILED(hr)) return hr;
    HRESULT result = S_OK;
    // Once a class stays installed elsewhere, the category memberships of it
    // and of every later class are left alone for the rest of the run.
    bool categoriesAllowed = true;
    CatRegisterPtr catRegister;
    try {
        for (const COM_OBJMAP_ENTRY* entry = m_pObjectMap; entry && entry->pclsid; ++entry) {
            if (entry->pfnUpdateRegistry) {
                const HRESULT updated = entry->pfnUpdateRegistry(reg);
                if (FAILED(updated)) result = S_FALSE;
                if (!reg && updated == S_FALSE) categoriesAllowed = false;
            }
            if (!UpdateClassCategories(*entry, reg, categoriesAllowed, catRegister)) result = S_FALSE;
        }
        if (!UpdateTypeLibraryRegistration(*this, reg, categoriesAllowed)) result = S_FALSE;
    } catch (...) {
        // A class whose registration throws leaves neither its half-written
        // entries nor the writers' lock behind.
        transaction->Abort();
        throw;
    }
    hr = transaction->Commit();
    return FAILED(hr) ? hr : result;
}

HRESULT COM_CComModule::UpdateRegistryClass(const COM_GUID& clsid, const wchar_t* progId,
                                            unsigned int, int reg, const wchar_t* displayName,
                                            const wchar_t* description,
                                            const wchar_t* monikerName,
                                            const wchar_t* monikerValueNames) {
    if (!progId) return E_POINTER;
    RegistryPtr registry;
    CAutoBstr classKey;
    CAutoBstr moduleName;
    try {
        COM_HRESULT_EXCEPTION hr = registry.CreateInstance(COM_CLSID_Registry);
        hr = COM_CLSIDToString(clsid, classKey.Out());
        const ClassEntries entries = {classKey.Get(), progId,      displayName,
                                      description,    monikerName, monikerValueNames};
        if (!reg) return UnregisterClassEntries(registry, entries);
        hr = GetModuleName(moduleName.Out());
        RegisterClassEntries(registry, entries, moduleName.Get());
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}
