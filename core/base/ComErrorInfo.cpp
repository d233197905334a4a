// Error-information objects and the process-wide current error.
#include "baseInternal.h"

namespace {

// Guards the current-error slot. Defined ahead of the slot, so that it is
// still there when the slot is emptied at unload.
std::mutex g_currentErrorMutex;

}  // namespace

utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> CComErrorInfo::s_spIEI;

CErrorInfo::CErrorInfo() { g_theModule.Lock(); }

CErrorInfo::~CErrorInfo() {
    COM_SysFreeString(m_bstrDescription);
    COM_SysFreeString(m_bstrLocation);
    g_theModule.Unlock();
}

HRESULT CErrorInfo::CreateInstance(const COM_GUID& iid, void** out) {
    CErrorInfo* object = new CErrorInfo;
    HRESULT hr = object->QueryInterface(iid, out);
    object->Release();
    return hr;
}

HRESULT CErrorInfo::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IErrorInfo) {
        *out = static_cast<COM_IErrorInfo*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

unsigned long CErrorInfo::AddRef() {
    const unsigned long before = m_cRef.fetch_add(1, std::memory_order_relaxed);
    if (before == 0) g_theModule.Lock();
    return before + 1;
}

unsigned long CErrorInfo::Release() {
    const unsigned long after = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (after == 0) delete this;
    return after;
}

// A null or empty text leaves the stored string in place: the copy refuses
// both and then changes nothing.
void CErrorInfo::StoreText(wchar_t*& field, const wchar_t* text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    COM_SysReAllocString(&field, text);
}

wchar_t* CErrorInfo::CopyText(wchar_t* const& field) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return COM_SysAllocStringLen(field, COM_SysStringLen(field));
}

HRESULT CErrorInfo::SetDescription(wchar_t* text) {
    StoreText(m_bstrDescription, text);
    return S_OK;
}

HRESULT CErrorInfo::SetLocation(wchar_t* text) {
    StoreText(m_bstrLocation, text);
    return S_OK;
}

HRESULT CErrorInfo::SetLineInfo(long line, long column) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_nLine = line;
    m_nColumn = column;
    return S_OK;
}

HRESULT CErrorInfo::SetHRESULT(int code) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hr = code;
    return S_OK;
}

HRESULT CErrorInfo::GetDescription(wchar_t** out) {
    if (!out) return E_POINTER;
    *out = CopyText(m_bstrDescription);
    return S_OK;
}

HRESULT CErrorInfo::GetLocation(wchar_t** out) {
    if (!out) return E_POINTER;
    *out = CopyText(m_bstrLocation);
    return S_OK;
}

HRESULT CErrorInfo::GetLineInfo(long* line, long* column) {
    if (!line || !column) return E_POINTER;
    std::lock_guard<std::mutex> lock(m_mutex);
    *line = m_nLine;
    *column = m_nColumn;
    return S_OK;
}

HRESULT CErrorInfo::GetHRESULT(int* out) {
    if (!out) return E_POINTER;
    std::lock_guard<std::mutex> lock(m_mutex);
    *out = m_hr;
    return S_OK;
}

HRESULT CComErrorInfo::CreateErrorInfo(COM_IErrorInfo** out) {
    if (!out) return E_POINTER;
    return CErrorInfo::CreateInstance(COM_IID_IErrorInfo, reinterpret_cast<void**>(out));
}

HRESULT CComErrorInfo::GetErrorInfo(COM_IErrorInfo** out) {
    if (!out) return E_POINTER;
    // The reference is taken under the lock: once it is given up, another
    // thread may release the slot's own reference. AddRef only counts, so
    // it cannot call back into these functions.
    std::lock_guard<std::mutex> lock(g_currentErrorMutex);
    if (s_spIEI.IsNull()) return S_FALSE;
    s_spIEI->AddRef();
    *out = s_spIEI;
    return S_OK;
}

COM_IErrorInfo* CComErrorInfo::Exchange(COM_IErrorInfo* info) {
    std::lock_guard<std::mutex> lock(g_currentErrorMutex);
    COM_IErrorInfo* held = s_spIEI.Detach();
    s_spIEI.Attach(info);
    return held;
}

// The slot's old reference is released outside the lock: the last Release
// of an error object from a component runs that component's code, which may
// set an error of its own.
HRESULT CComErrorInfo::SetErrorInfo(COM_IErrorInfo* info) {
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> incoming(info);
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> previous;
    previous.Attach(Exchange(incoming.Detach()));
    return S_OK;
}

HRESULT CComErrorInfo::ClearErrorInfo() {
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> previous;
    previous.Attach(Exchange(nullptr));
    return S_OK;
}
