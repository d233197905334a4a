// The service collection behind COM_GetService.
#include <cstdint>
#include <cstdio>

#include "coreInternal.h"

CServiceCollection* g_pServiceCollection = nullptr;

namespace {

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;

std::once_flag g_serviceCollectionMade;

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

// A later caller's interface comes from the kept object. When the object
// lacks the interface, the reference taken for this lookup stays on it:
// callers of this runtime rely on that count.
HRESULT QueryKept(UnknownPtr& found, const COM_GUID& riid, void** ppv) {
    const HRESULT hr = found->QueryInterface(riid, ppv);
    if (FAILED(hr)) found.Detach();
    return hr;
}

}  // namespace

CServiceCollection* TheServiceCollection() {
    std::call_once(g_serviceCollectionMade,
                   [] { g_pServiceCollection = new (std::nothrow) CServiceCollection; });
    return g_pServiceCollection;
}

// Ends a claim on every path out of making a service, so that no waiting
// thread is left behind, even when activation throws.
class CServiceCollection::CMakingClaim {
public:
    CMakingClaim(CServiceCollection& owner, const std::wstring& key, bool claimed)
        : m_owner(owner), m_key(key), m_bClaimed(claimed) {}
    CMakingClaim(const CMakingClaim&) = delete;
    CMakingClaim& operator=(const CMakingClaim&) = delete;
    ~CMakingClaim() {
        if (m_bClaimed) m_owner.EndClaim(m_key);
    }

private:
    CServiceCollection& m_owner;
    const std::wstring& m_key;
    bool m_bClaimed;
};

CServiceCollection::~CServiceCollection() {
    for (auto& service : m_services) service.second.Reset();
    m_services.clear();
}

// Stored objects stay until the collection goes, so the pointer found under
// the lock is still valid when the reference is added after it.
int CServiceCollection::Get(std::wstring& key, COM_IUnknown** out) {
    COM_IUnknown* kept = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_services.find(key);
        if (found == m_services.end()) return 0;
        kept = found->second.Get();
    }
    kept->AddRef();
    *out = kept;
    return 1;
}

// The collection's reference is taken before the lock and, when the key is
// present already, dropped after it: no component code runs under the lock.
int CServiceCollection::Add(std::wstring& key, COM_IUnknown* object) {
    UnknownPtr reference(object);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_services.count(key) != 0) return 0;
    m_services.emplace(key, std::move(reference));
    return 1;
}

COM_IUnknown* CServiceCollection::FindOrClaim(const std::wstring& key, bool& claimed) {
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_claimEnded.wait(lock, [&] {
        auto making = m_making.find(key);
        return making == m_making.end() || making->second == self;
    });
    auto found = m_services.find(key);
    if (found != m_services.end()) return found->second.Get();
    claimed = m_making.emplace(key, self).second;
    return nullptr;
}

void CServiceCollection::EndClaim(const std::wstring& key) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_making.erase(key);
    }
    m_claimEnded.notify_all();
}

HRESULT CServiceCollection::GetService(const COM_GUID& guidService, unsigned int context,
                                       const COM_GUID& riid, void** ppv) {
    if (!ppv) return E_POINTER;
    std::wstring key;
    HRESULT hr = MakeServiceKey(guidService, context, key);
    if (FAILED(hr)) return hr;

    UnknownPtr found;
    if (Get(key, found.Out())) return QueryKept(found, riid, ppv);
    bool claimed = false;
    if (COM_IUnknown* kept = FindOrClaim(key, claimed)) {
        found = kept;
        return QueryKept(found, riid, ppv);
    }
    // Waiting threads look again once the object is stored, or try making it
    // themselves when this attempt failed.
    CMakingClaim claim(*this, key, claimed);

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
