// The service collection behind COM_GetService.
#include <cstdint>
#include <cstdio>

#include "coreInternal.h"

CServiceCollection* g_pServiceCollection = nullptr;

namespace {

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;

// The identifier text has a fixed length, so the number needs no separator
// for two different pairs to give two different keys.
HRESULT MakeServiceKey(const COM_GUID& guidService, unsigned int context, std::wstring& key) {
    CAutoBstr text;
    const HRESULT hr = COM_CLSIDToString(guidService, text.Out());
    if (FAILED(hr)) return hr;
    key.assign(text.Get(), text.Length());
    char number[16];
    std::snprintf(number, sizeof number, "%u", context);
    AppendWidened(key, number);
    return S_OK;
}

}  // namespace

CServiceCollection::~CServiceCollection() {
    for (auto& service : m_services) service.second.Reset();
    m_services.clear();
}

int CServiceCollection::Get(std::wstring& key, COM_IUnknown** out) {
    auto found = m_services.find(key);
    if (found == m_services.end()) return 0;
    *out = found->second.Get();
    (*out)->AddRef();
    return 1;
}

int CServiceCollection::Add(std::wstring& key, COM_IUnknown* object) {
    if (m_services.count(key) != 0) return 0;
    m_services.emplace(key, UnknownPtr(object));
    return 1;
}

HRESULT CServiceCollection::GetService(const COM_GUID& guidService, unsigned int context,
                                       const COM_GUID& riid, void** ppv) {
    if (!ppv) return E_POINTER;
    std::wstring key;
    HRESULT hr = MakeServiceKey(guidService, context, key);
    if (FAILED(hr)) return hr;

    UnknownPtr found;
    if (Get(key, found.Out())) {
        hr = found->QueryInterface(riid, ppv);
        // When the kept object lacks the interface, the reference taken for
        // this lookup stays on it: callers of this runtime rely on that count.
        if (FAILED(hr)) found.Detach();
        return hr;
    }

    // The number travels as the outer-object argument, which activation
    // ignores.
    COM_IUnknown* outer = reinterpret_cast<COM_IUnknown*>(static_cast<uintptr_t>(context));
    hr = COM_CreateInstance(guidService, outer, riid, ppv);
    if (FAILED(hr)) return hr;
    if (!*ppv) return E_UNEXPECTED;
    // The first caller's interface pointer is the one kept. The key can only
    // be present now if making the service asked for the service itself.
    if (!Add(key, static_cast<COM_IUnknown*>(*ppv))) return E_UNEXPECTED;
    return hr;
}
