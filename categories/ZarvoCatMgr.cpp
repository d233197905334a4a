// The category manager: categories and their member classes below the
// classes root's "ComponentCategories" key.
#include <new>

#include "categoriesInternal.h"
#include "baseInternal.h"

namespace {
// The key below the classes root that holds every category.
const wchar_t kComponentCategoriesKey[] = L"ComponentCategories";
}  // namespace

void OpenCategories(COM_IRegistry* registry, const wchar_t* catKey) {
    COM_HRESULT_EXCEPTION hr = registry->Open(1, L"");
    hr = registry->OpenKey(kComponentCategoriesKey);
    if (catKey) hr = registry->OpenKey(catKey);
}

namespace {

using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using EnumClsidPtr = utlAutoIf<COM_IEnumCLSID, &COM_IID_IEnumCLSID>;

}  // namespace

CCatMgr::CCatMgr() { g_theModule.Lock(); }

CCatMgr::~CCatMgr() { g_theModule.Unlock(); }

HRESULT CCatMgr::CreateInstance(const COM_GUID& riid, void** ppv) {
    if (!ppv) return E_POINTER;
    CCatMgr* object = new (std::nothrow) CCatMgr;
    if (!object) return E_OUTOFMEMORY;
    // Owns the construction reference.
    CatRegisterPtr holder;
    holder.Attach(object);
    HRESULT hr = object->Initialize();
    if (FAILED(hr)) return hr;
    return object->QueryInterface(riid, ppv);
}

HRESULT CCatMgr::Initialize() {
    m_spRegistry.Reset();
    return m_spRegistry.CreateInstance(COM_CLSID_Registry);
}

HRESULT CCatMgr::QueryInterface(const COM_GUID& riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == COM_IID_IUnknown || riid == COM_IID_ICatRegister) {
        *ppv = static_cast<COM_ICatRegister*>(this);
    } else if (riid == COM_IID_ICatInformation) {
        *ppv = static_cast<COM_ICatInformation*>(this);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

unsigned long CCatMgr::AddRef() { return m_cRef.fetch_add(1, std::memory_order_relaxed) + 1; }

unsigned long CCatMgr::Release() {
    const unsigned long count = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (count == 0) delete this;
    return count;
}

// Each operation below walks from the classes root one key at a time; a
// failing step ends it with that step's status and nothing is rolled back.

HRESULT CCatMgr::RegisterCategory(const COM_GUID& catid, const wchar_t* description) {
    if (!description) return E_POINTER;
    CAutoBstr catKey;
    try {
        COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(catid, catKey.Out());
        hr = m_spRegistry->Open(1, L"");
        hr = m_spRegistry->CreateKey(kComponentCategoriesKey, 1);
        // An existing category is opened, so its description is replaced.
        hr = m_spRegistry->CreateKey(catKey.Get(), 1);
        hr = m_spRegistry->SetValueString(L"", description);
        hr = m_spRegistry->Close();
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}

HRESULT CCatMgr::RegisterClassInCategory(const COM_GUID& catid, const COM_GUID& clsid) {
    CAutoBstr catKey;
    CAutoBstr classKey;
    try {
        COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(catid, catKey.Out());
        hr = COM_CLSIDToString(clsid, classKey.Out());
        hr = m_spRegistry->Open(1, L"");
        hr = m_spRegistry->CreateKey(kComponentCategoriesKey, 1);
        // The category may not be registered yet: its key is made without a
        // description.
        hr = m_spRegistry->CreateKey(catKey.Get(), 1);
        hr = m_spRegistry->CreateKey(classKey.Get(), 1);
        hr = m_spRegistry->Close();
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}

HRESULT CCatMgr::UnRegisterCategory(const COM_GUID& catid) {
    CAutoBstr catKey;
    try {
        COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(catid, catKey.Out());
        OpenCategories(m_spRegistry, nullptr);
        // The members go with the category.
        hr = m_spRegistry->DeleteKey(catKey.Get());
        hr = m_spRegistry->Close();
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}

HRESULT CCatMgr::UnRegisterClassInCategory(const COM_GUID& catid, const COM_GUID& clsid) {
    CAutoBstr catKey;
    CAutoBstr classKey;
    try {
        COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(catid, catKey.Out());
        hr = COM_CLSIDToString(clsid, classKey.Out());
        OpenCategories(m_spRegistry, catKey.Get());
        hr = m_spRegistry->DeleteKey(classKey.Get());
        hr = m_spRegistry->Close();
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}

HRESULT CCatMgr::GetCategoryDescription(const COM_GUID& catid, wchar_t** description) {
    if (!description) return E_POINTER;
    CAutoBstr catKey;
    try {
        COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(catid, catKey.Out());
        OpenCategories(m_spRegistry, catKey.Get());
        hr = m_spRegistry->GetValueString(L"", description);
        hr = m_spRegistry->Close();
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}

HRESULT CCatMgr::EnumCategories(COM_IEnumCATEGORYINFO** ppenum) {
    if (!ppenum) return E_POINTER;
    return CCatEnumerator::CreateInstance(COM_IID_IEnumCATEGORYINFO,
                                          reinterpret_cast<void**>(ppenum), m_spRegistry);
}

HRESULT CCatMgr::EnumClassesOfCategory(const COM_GUID& catid, COM_IEnumCLSID** ppenum) {
    if (!ppenum) return E_POINTER;
    EnumClsidPtr classes;
    HRESULT hr = CClsidEnumerator::CreateInstance(COM_IID_IEnumCLSID, classes.OutVoid(), catid,
                                                  m_spRegistry);
    if (FAILED(hr)) return hr;
    *ppenum = classes.Detach();
    return S_OK;
}
