// Error-information objects and the process-wide current error.
#include "coreInternal.h"

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
    if (++m_cRef == 1) g_theModule.Lock();
    return m_cRef;
}

unsigned long CErrorInfo::Release() {
    if (--m_cRef != 0) return m_cRef;
    delete this;
    return 0;
}

// A null or empty text leaves the stored string in place: the copy refuses
// both and then changes nothing.
HRESULT CErrorInfo::SetDescription(wchar_t* text) {
    COM_SysReAllocString(&m_bstrDescription, text);
    return S_OK;
}

HRESULT CErrorInfo::SetLocation(wchar_t* text) {
    COM_SysReAllocString(&m_bstrLocation, text);
    return S_OK;
}

HRESULT CErrorInfo::SetLineInfo(long line, long column) {
    m_nLine = line;
    m_nColumn = column;
    return S_OK;
}

HRESULT CErrorInfo::SetHRESULT(int code) {
    m_hr = code;
    return S_OK;
}

HRESULT CErrorInfo::GetDescription(wchar_t** out) {
    if (!out) return E_POINTER;
    *out = COM_SysAllocStringLen(m_bstrDescription, COM_SysStringLen(m_bstrDescription));
    return S_OK;
}

HRESULT CErrorInfo::GetLocation(wchar_t** out) {
    if (!out) return E_POINTER;
    *out = COM_SysAllocStringLen(m_bstrLocation, COM_SysStringLen(m_bstrLocation));
    return S_OK;
}

HRESULT CErrorInfo::GetLineInfo(long* line, long* column) {
    if (!line || !column) return E_POINTER;
    *line = m_nLine;
    *column = m_nColumn;
    return S_OK;
}

HRESULT CErrorInfo::GetHRESULT(int* out) {
    if (!out) return E_POINTER;
    *out = m_hr;
    return S_OK;
}

HRESULT CComErrorInfo::CreateErrorInfo(COM_IErrorInfo** out) {
    if (!out) return E_POINTER;
    return CErrorInfo::CreateInstance(COM_IID_IErrorInfo, reinterpret_cast<void**>(out));
}

HRESULT CComErrorInfo::GetErrorInfo(COM_IErrorInfo** out) {
    if (!out) return E_POINTER;
    if (s_spIEI.IsNull()) return S_FALSE;
    s_spIEI->AddRef();
    *out = s_spIEI;
    return S_OK;
}

HRESULT CComErrorInfo::SetErrorInfo(COM_IErrorInfo* info) {
    if (info != s_spIEI.Get()) s_spIEI = info;
    return S_OK;
}

HRESULT CComErrorInfo::ClearErrorInfo() {
    s_spIEI.Reset();
    return S_OK;
}
