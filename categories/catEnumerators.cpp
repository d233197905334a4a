// The category and class enumerators: a snapshot of key names below
// "ComponentCategories", stepped through with a cursor.
#include <algorithm>
#include <cstring>
#include <cwchar>
#include <new>
#include <utility>

#include "categoriesInternal.h"
#include "baseInternal.h"

namespace {

using EnumBstrPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;

// Names are read from the registry's enumerator this many at a time.
const unsigned long kNameBatch = 3;

// Characters of a description that fit in a record beside its terminator.
const unsigned long kMaxDescription =
    sizeof(COM_CATEGORYINFO::szDescription) / sizeof(wchar_t) - 1;

static_assert(sizeof(COM_CATEGORYINFO) == 1040, "a category record is 1040 bytes");

struct TaskMemDeleter {
    void operator()(void* p) const { COM_TaskMemFree(p); }
};

}  // namespace

template <class D, class I, const COM_GUID* piid, class E>
CCatEnumBase<D, I, piid, E>::CCatEnumBase() : m_spNames(std::make_shared<CVecBstr>()) {
    g_theModule.Lock();
}

template <class D, class I, const COM_GUID* piid, class E>
CCatEnumBase<D, I, piid, E>::CCatEnumBase(const CCatEnumBase& source)
    : I(),
      m_cRef(0),
      m_spNames(source.m_spNames),
      m_nIndex(source.m_nIndex),
      m_spRegistry(source.m_spRegistry) {
    g_theModule.Lock();
}

template <class D, class I, const COM_GUID* piid, class E>
CCatEnumBase<D, I, piid, E>::~CCatEnumBase() {
    g_theModule.Unlock();
}

template <class D, class I, const COM_GUID* piid, class E>
template <class... Args>
HRESULT CCatEnumBase<D, I, piid, E>::Create(const COM_GUID& riid, void** ppv, Args&&... args) {
    if (!ppv) return E_POINTER;
    D* object = new (std::nothrow) D;
    if (!object) return E_OUTOFMEMORY;
    // Owns the construction reference.
    utlAutoIf<I, piid> holder;
    holder.Attach(object);
    HRESULT hr = object->Initialize(std::forward<Args>(args)...);
    if (FAILED(hr)) return hr;
    return object->QueryInterface(riid, ppv);
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::QueryInterface(const COM_GUID& riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == COM_IID_IUnknown || riid == *piid) {
        *ppv = static_cast<I*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

template <class D, class I, const COM_GUID* piid, class E>
unsigned long CCatEnumBase<D, I, piid, E>::AddRef() {
    return m_cRef.fetch_add(1, std::memory_order_relaxed) + 1;
}

template <class D, class I, const COM_GUID* piid, class E>
unsigned long CCatEnumBase<D, I, piid, E>::Release() {
    const unsigned long count = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (count == 0) delete this;
    return count;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::ReadNames() {
    EnumBstrPtr names;
    HRESULT hr = m_spRegistry->EnumKeys(names.Out());
    if (FAILED(hr)) return hr;
    auto list = std::make_shared<CVecBstr>();
    for (;;) {
        wchar_t* batch[kNameBatch] = {};
        unsigned long fetched = 0;
        hr = names->Next(kNameBatch, batch, &fetched);
        if (FAILED(hr)) return hr;
        fetched = std::min(fetched, kNameBatch);
        for (unsigned long i = 0; i < fetched; ++i) list->push_back(batch[i]);
        // S_FALSE marks the last batch; an empty one ends it as well, so a
        // source that never says S_FALSE cannot hold us here.
        if (hr == S_FALSE || fetched == 0) break;
    }
    m_spNames = std::move(list);
    m_nIndex = 0;
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::get_Count(unsigned long* count) {
    if (!count) return E_POINTER;
    *count = NameCount();
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::get_Index(unsigned long* index) {
    if (!index) return E_POINTER;
    *index = m_nIndex;
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::set_Index(unsigned long index) {
    if (index >= NameCount()) return S_FALSE;
    m_nIndex = index;
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::Next(unsigned long celt, E** rgelt,
                                          unsigned long* pceltFetched) {
    if (!rgelt || !pceltFetched) return E_POINTER;
    const unsigned long count = NameCount();
    if (count == 0) return S_FALSE;
    *pceltFetched = 0;
    // Written so that no celt, however large, wraps past the end.
    const unsigned long end =
        m_nIndex < count && celt < count - m_nIndex ? m_nIndex + celt : count;
    if (m_nIndex >= end) return celt != 0 ? S_FALSE : S_OK;
    try {
        for (; m_nIndex < end; ++m_nIndex, ++*pceltFetched) {
            void* block = nullptr;
            if (COM_TaskMemAlloc(sizeof(E), &block) != 0) throw static_cast<int>(E_OUTOFMEMORY);
            std::unique_ptr<E, TaskMemDeleter> element(static_cast<E*>(block));
            std::memset(block, 0, sizeof(E));
            static_cast<D*>(this)->FillElement((*m_spNames)[m_nIndex], element.get());
            rgelt[*pceltFetched] = element.release();
        }
    } catch (int hr) {
        // What was handed out stays handed out and counted.
        return hr;
    }
    return *pceltFetched < celt ? S_FALSE : S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::Skip(unsigned long count) {
    // The cursor never lands on the end itself.
    const unsigned long names = NameCount();
    if (m_nIndex >= names || count >= names - m_nIndex) return S_FALSE;
    m_nIndex += count;
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::SkipEnd() {
    // On an empty list this wraps to the largest value, as callers expect.
    m_nIndex = NameCount() - 1;
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::Reset() {
    m_nIndex = 0;
    return S_OK;
}

template <class D, class I, const COM_GUID* piid, class E>
HRESULT CCatEnumBase<D, I, piid, E>::Clone(I** out) {
    if (!out) return E_POINTER;
    D* copy = new (std::nothrow) D(static_cast<const D&>(*this));
    if (!copy) return E_OUTOFMEMORY;
    utlAutoIf<I, piid> holder(copy);
    return copy->QueryInterface(*piid, reinterpret_cast<void**>(out));
}

HRESULT CCatEnumerator::CreateInstance(const COM_GUID& riid, void** ppv,
                                       COM_IRegistry* registry) {
    return Create(riid, ppv, registry);
}

HRESULT CCatEnumerator::Initialize(COM_IRegistry* registry) {
    if (!registry) return E_POINTER;
    m_spRegistry = registry;
    try {
        OpenCategories(m_spRegistry, nullptr);
        // Left open: every Next opens the registry anew.
        return ReadNames();
    } catch (int hr) {
        return hr;
    }
}

void CCatEnumerator::FillElement(const wchar_t* name, COM_CATEGORYINFO* info) {
    COM_HRESULT_EXCEPTION hr = COM_StringToCLSID(name, &info->catid);
    OpenCategories(m_spRegistry, name);
    CAutoBstr text;
    hr = m_spRegistry->GetValueString(L"", text.Out());
    hr = m_spRegistry->Close();
    // A longer description is cut to fit: the record ends with a terminator
    // and nothing is written past it.
    const unsigned long length = std::min(text.Length(), kMaxDescription);
    if (length != 0) std::wmemcpy(info->szDescription, text.Get(), length);
    info->szDescription[length] = L'\0';
}

HRESULT CClsidEnumerator::CreateInstance(const COM_GUID& riid, void** ppv, const COM_GUID& catid,
                                         COM_IRegistry* registry) {
    return Create(riid, ppv, catid, registry);
}

HRESULT CClsidEnumerator::Initialize(const COM_GUID& catid, COM_IRegistry* registry) {
    if (!registry) return E_POINTER;
    m_spRegistry = registry;
    m_catid = catid;
    CAutoBstr catKey;
    try {
        COM_HRESULT_EXCEPTION hr = COM_CLSIDToString(catid, catKey.Out());
        // A category that does not exist fails here.
        OpenCategories(m_spRegistry, catKey.Get());
        hr = ReadNames();
        return m_spRegistry->Close();
    } catch (int hr) {
        return hr;
    }
}

void CClsidEnumerator::FillElement(const wchar_t* name, COM_GUID* clsid) {
    const HRESULT hr = COM_StringToCLSID(name, clsid);
    if (FAILED(hr)) throw static_cast<int>(hr);
}
