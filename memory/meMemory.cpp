// The memory object and the two simple strategies: the process heap and a bump
// allocator over the caller's buffer.
#include <cstdlib>
#include <new>

#include "memoryInternal.h"

// ---- CStandardAllocationStrategy -------------------------------------------

void* CStandardAllocationStrategy::Alloc(unsigned long size) { return std::malloc(size); }

void CStandardAllocationStrategy::Free(void* p) { std::free(p); }

// The heap has no limit the strategy knows of.
unsigned long CStandardAllocationStrategy::GetCommittedMemory() { return ME_SIZE_TYPE_MAXPOS(); }

unsigned long CStandardAllocationStrategy::GetAvailableMemory() { return ME_SIZE_TYPE_MAXPOS(); }

HRESULT CStandardAllocationStrategy::Reset() { return E_NOTIMPL; }

bool CStandardAllocationStrategy::GetFreeInfo(unsigned long&, unsigned long&, unsigned long&) { return false; }

HEAPSTATUS CStandardAllocationStrategy::GetHeapStatus() { return 0; }

// ---- CLinearAllocationStrategy ---------------------------------------------

// A null buffer is taken as an empty one, so no pointer is ever formed from
// null plus an offset.
CLinearAllocationStrategy::CLinearAllocationStrategy(void* buffer, unsigned long size)
    : m_pBegin(static_cast<char*>(buffer)),
      m_pEnd(buffer ? static_cast<char*>(buffer) + size : nullptr),
      m_pNext(static_cast<char*>(buffer)) {}

void* CLinearAllocationStrategy::Alloc(unsigned long size) {
    // Compare what remains rather than forming next + size past the buffer.
    if (size > static_cast<unsigned long>(m_pEnd - m_pNext)) return nullptr;
    char* p = m_pNext;
    m_pNext += size;
    return p;
}

void CLinearAllocationStrategy::Free(void*) {}

unsigned long CLinearAllocationStrategy::GetCommittedMemory() { return static_cast<unsigned long>(m_pEnd - m_pBegin); }

unsigned long CLinearAllocationStrategy::GetAvailableMemory() { return static_cast<unsigned long>(m_pEnd - m_pNext); }

HRESULT CLinearAllocationStrategy::Reset() {
    m_pNext = m_pBegin;
    return S_OK;
}

bool CLinearAllocationStrategy::GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes,
                                            unsigned long& freeBlocks) {
    freeBytes = 0;
    overheadBytes = 0;
    freeBlocks = 0;
    return true;
}

HEAPSTATUS CLinearAllocationStrategy::GetHeapStatus() { return 0; }

// ---- CMemory ---------------------------------------------------------------

CMemory::~CMemory() { DropStrategy(); }

HRESULT CMemory::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IMemory) {
        *out = static_cast<COM_IMemory*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

unsigned long CMemory::AddRef() {
    const uint64_t after = m_cRef.fetch_add(1, std::memory_order_relaxed) + 1;
    if (after == 1) g_theModule.Lock();
    return after;
}

// The release that reaches zero sees every other thread's writes to the
// object before it frees it.
unsigned long CMemory::Release() {
    const uint64_t after = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (after != 0) return after;
    delete this;
    g_theModule.Unlock();
    return 0;
}

void CMemory::DropStrategy() {
    CAllocationStrategy* old = m_pStrategy;
    m_pStrategy = nullptr;
    delete old;
}

CAllocationStrategy* CMemory::BuildStrategy(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size) {
    switch (strategy) {
    case ALLOCATION_STRATEGY_STANDARD:
        return new CStandardAllocationStrategy;
    case ALLOCATION_STRATEGY_LINEAR:
        return new CLinearAllocationStrategy(buffer, size);
    case ALLOCATION_STRATEGY_VIRTUAL:
        return new CVirtualAllocationStrategy(buffer, size, false, this);
    case ALLOCATION_STRATEGY_VIRTUAL_REUSE:
        return new CVirtualAllocationStrategy(buffer, size, true, this);
    }
    COM_HRESULT_EXCEPTION raise(E_INVALIDARG);
    return nullptr;
}

// The old strategy goes first whatever happens next, so a failure leaves none.
HRESULT CMemory::SetStrategy(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size) {
    DropStrategy();
    m_nAllocs = 0;
    m_nFrees = 0;
    try {
        m_pStrategy = BuildStrategy(strategy, buffer, size);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_FAIL;
    } catch (...) {
        // An unknown value is raised as E_INVALIDARG and reported as this.
        return E_UNEXPECTED;
    }
}

// Without a strategy Alloc, Free and Reset are caller errors; they fail
// harmlessly instead of dereferencing null.
void* CMemory::Alloc(unsigned long size) {
    if (!m_pStrategy) return nullptr;
    void* p = m_pStrategy->Alloc(size);
    if (p) ++m_nAllocs;
    return p;
}

void CMemory::Free(void* p) {
    if (!p || !m_pStrategy) return;
    m_pStrategy->Free(p);
    ++m_nFrees;
}

HRESULT CMemory::Reset() {
    if (!m_pStrategy) return E_UNEXPECTED;
    HRESULT hr = m_pStrategy->Reset();
    if (hr != S_OK) return hr;
    m_nAllocs = 0;
    m_nFrees = 0;
    return S_OK;
}

HRESULT CMemory::GetUsageInfo(unsigned long* allocs, unsigned long* frees, unsigned long* committed,
                              unsigned long* available) {
    if (!m_pStrategy) return E_FAIL;
    if (!allocs || !frees || !committed || !available) return E_POINTER;
    *allocs = m_nAllocs;
    *frees = m_nFrees;
    *committed = m_pStrategy->GetCommittedMemory();
    *available = m_pStrategy->GetAvailableMemory();
    return S_OK;
}

HRESULT CMemory::GetFreeInfo(unsigned long* freeBytes, unsigned long* overheadBytes, unsigned long* freeBlocks) {
    if (!m_pStrategy) return E_FAIL;
    if (!freeBytes || !overheadBytes || !freeBlocks) return E_POINTER;
    return m_pStrategy->GetFreeInfo(*freeBytes, *overheadBytes, *freeBlocks) ? S_OK : E_NOTIMPL;
}

HRESULT CMemory::GetHeapStatus(HEAPSTATUS* status) {
    if (!m_pStrategy) return E_UNEXPECTED;
    if (!status) return E_POINTER;
    *status = m_pStrategy->GetHeapStatus();
    return S_OK;
}

HRESULT CMemory::GetStrategyFlags(ALLOCATION_STRATEGY strategy, unsigned long* flags) {
    unsigned long value;
    switch (strategy) {
    case ALLOCATION_STRATEGY_STANDARD:
        value = CStandardAllocationStrategy::GetFlags();
        break;
    case ALLOCATION_STRATEGY_LINEAR:
        value = CLinearAllocationStrategy::GetFlags();
        break;
    case ALLOCATION_STRATEGY_VIRTUAL:
    case ALLOCATION_STRATEGY_VIRTUAL_REUSE:
        value = CVirtualAllocationStrategy::GetFlags();
        break;
    default:
        return E_UNEXPECTED;
    }
    if (!flags) return E_POINTER;
    *flags = value;
    return S_OK;
}
