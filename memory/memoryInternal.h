// Private declarations of the memory object, its strategies and the arenas.
#ifndef VELTCOM_MEMORY_INTERNAL_H
#define VELTCOM_MEMORY_INTERNAL_H

#include <atomic>
#include <cstdint>
#include <deque>

#include "veltcom.h"

// What Free throws, with arena reuse, for a pointer that no arena holds.
extern const char g_szMeBlockNotInArena[];

// The abstract base of the strategies; only CMemory is a component object.
class CAllocationStrategy {
public:
    virtual ~CAllocationStrategy() {}
    virtual void* Alloc(unsigned long size) = 0;
    virtual void Free(void* p) = 0;
    virtual unsigned long GetCommittedMemory() = 0;
    virtual unsigned long GetAvailableMemory() = 0;
    virtual HRESULT Reset() = 0;
    // Whether the strategy keeps free blocks; when it does not, the outputs
    // are left untouched.
    virtual bool GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes,
                             unsigned long& freeBlocks) = 0;
    virtual HEAPSTATUS GetHeapStatus() = 0;

    static unsigned long ME_SIZE_TYPE_MAXPOS() { return ~0UL; }
};

// The process heap. Blocks still live when the strategy goes are never freed.
class CStandardAllocationStrategy : public CAllocationStrategy {
public:
    void* Alloc(unsigned long size) override;
    void Free(void* p) override;
    unsigned long GetCommittedMemory() override;
    unsigned long GetAvailableMemory() override;
    HRESULT Reset() override;
    bool GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes, unsigned long& freeBlocks) override;
    HEAPSTATUS GetHeapStatus() override;

    static unsigned long GetFlags() { return 1; }
};

// A bump allocator over the caller's buffer, which it never owns. No rounding,
// no alignment: that is the caller's business.
class CLinearAllocationStrategy : public CAllocationStrategy {
public:
    CLinearAllocationStrategy(void* buffer, unsigned long size);

    void* Alloc(unsigned long size) override;
    void Free(void* p) override;
    unsigned long GetCommittedMemory() override;
    unsigned long GetAvailableMemory() override;
    HRESULT Reset() override;
    bool GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes, unsigned long& freeBlocks) override;
    HEAPSTATUS GetHeapStatus() override;

    static unsigned long GetFlags() { return 1; }

private:
    char* m_pBegin;
    char* m_pEnd;
    char* m_pNext;
};

// One range of anonymous memory, mapped once, filled from the bottom by a bump
// pointer. A block is a size word (header included) followed by the caller's
// data; a free block's word HEADERSIZEUN links to the next free block.
class CVirtualArena {
public:
    // (Re)set by every Initialize.
    static uint64_t COMMITPAGESIZE;
    static uint32_t HEADERSIZE;
    static uint32_t HEADERSIZEUN;
    static uint32_t TRAILERSIZE;
    static uint32_t TRAILERSIZEUN;

    CVirtualArena(COM_IMemory* owner, bool reuse);
    ~CVirtualArena();
    CVirtualArena(const CVirtualArena&) = delete;
    CVirtualArena& operator=(const CVirtualArena&) = delete;

    // Maps size, rounded up to whole pages; address is only a hint.
    bool Initialize(void* address, unsigned long size);
    // A block of exactly blockSize bytes, header included (a multiple of 8,
    // at least 16); returns the caller's pointer into it, or null.
    void* Alloc(unsigned long blockSize);
    // Alloc's common cases only; null where Alloc would have more to do.
    void* AllocQuickly(unsigned long blockSize);
    unsigned long GetCommittedMemory() const;
    unsigned long GetAvailableMemory() const;
    // Adds to the values given; does not clear them.
    void GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes, unsigned long& freeBlocks) const;

    void LinkFreeBlock(void* block);
    // prev: the block before the first fit (the sentinel when it is first),
    // or null when no block is large enough.
    void FindPtrToFreeBlock(unsigned long blockSize, void*& prev) const;
    void UnlinkFreeBlock(void* prev);
    // Shrinks the free block by blockSize and returns the cut-off tail.
    void* TakeEndOfFreeBlock(void* block, unsigned long blockSize);
    bool DecommitAll();
    // Rewinds to an empty arena. Reports false; the strategy never calls it,
    // it maps a fresh arena instead.
    bool Reset();
    bool DereserveAll();

    // Whether block lies between the arena's start and its bump pointer.
    bool HoldsBlock(uintptr_t block) const {
        return block >= reinterpret_cast<uintptr_t>(m_pReservedBegin) && block < reinterpret_cast<uintptr_t>(m_pNext);
    }

private:
    static constexpr uint32_t kSentinelWords = 17;

    static uint64_t* NextFree(const uint64_t* block) {
        return reinterpret_cast<uint64_t*>(static_cast<uintptr_t>(block[HEADERSIZEUN]));
    }
    static void SetNextFree(uint64_t* block, const uint64_t* next) {
        block[HEADERSIZEUN] = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(next));
    }

    void* AllocFromFreeList(unsigned long blockSize);
    void* TakeFreeBlock(uint64_t* prev, uint64_t* block, unsigned long blockSize);
    void* Bump(unsigned long blockSize);
    bool Commit(const char* top);
    void ClearFreeList();

    // The memory object served; kept for whoever inspects the arena, read by
    // nothing here.
    COM_IMemory* m_pOwner;
    bool m_bInitialized = false;
    char* m_pReservedBegin = nullptr;
    char* m_pReservedEnd = nullptr;
    char* m_pNext = nullptr;
    char* m_pCommittedEnd = nullptr;
    bool m_bReuse;
    uint64_t* m_pFreeListHead = nullptr;
    uint64_t m_rgSentinel[kSentinelWords] = {};
};

// The common cases, without a call: with reuse the newest free block when it
// fits (first fit: it is the fit whenever it is large enough), else a bump
// below the committed mark. Null when neither applies; Alloc then decides.
inline void* CVirtualArena::AllocQuickly(unsigned long blockSize) {
    if (m_bReuse && m_pFreeListHead) {
        uint64_t* first = NextFree(m_pFreeListHead);
        if (first) return first[0] >= blockSize ? TakeFreeBlock(m_pFreeListHead, first, blockSize) : nullptr;
    }
    if (blockSize > static_cast<unsigned long>(m_pCommittedEnd - m_pNext)) return nullptr;
    char* block = m_pNext;
    m_pNext += blockSize;
    reinterpret_cast<uint64_t*>(block)[0] = blockSize;
    return block + HEADERSIZE;
}

// block is the free block after prev.
inline void* CVirtualArena::TakeFreeBlock(uint64_t* prev, uint64_t* block, unsigned long blockSize) {
    // Too small a remainder to hold a free block: the caller gets the slack.
    if (block[0] - blockSize < TRAILERSIZE + HEADERSIZE + 8) {
        UnlinkFreeBlock(prev);
        return block + HEADERSIZEUN;
    }
    uint64_t* tail = static_cast<uint64_t*>(TakeEndOfFreeBlock(block, blockSize));
    tail[0] = blockSize;
    return tail + HEADERSIZEUN;
}

inline void CVirtualArena::LinkFreeBlock(void* block) {
    uint64_t* words = static_cast<uint64_t*>(block);
    SetNextFree(words, NextFree(m_pFreeListHead));
    SetNextFree(m_pFreeListHead, words);
}

inline void CVirtualArena::UnlinkFreeBlock(void* prev) {
    uint64_t* before = static_cast<uint64_t*>(prev);
    SetNextFree(before, NextFree(NextFree(before)));
}

inline void* CVirtualArena::TakeEndOfFreeBlock(void* block, unsigned long blockSize) {
    uint64_t* words = static_cast<uint64_t*>(block);
    words[0] -= blockSize;
    return static_cast<char*>(block) + words[0];
}

// Arenas of reserved address space, tried front to back: failing arenas rotate
// to the back and a new arena is mapped at the front.
class CVirtualAllocationStrategy : public CAllocationStrategy {
public:
    // Throws std::bad_alloc when the first arena cannot be mapped.
    CVirtualAllocationStrategy(void* address, unsigned long size, bool reuse, COM_IMemory* owner);
    ~CVirtualAllocationStrategy() override;
    CVirtualAllocationStrategy(const CVirtualAllocationStrategy&) = delete;
    CVirtualAllocationStrategy& operator=(const CVirtualAllocationStrategy&) = delete;

    void* Alloc(unsigned long size) override;
    void Free(void* p) override;
    unsigned long GetCommittedMemory() override;
    unsigned long GetAvailableMemory() override;
    // Unmaps every arena and maps one fresh one; throws std::bad_alloc when
    // that fails.
    HRESULT Reset() override;
    bool GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes, unsigned long& freeBlocks) override;
    HEAPSTATUS GetHeapStatus() override;

    static unsigned long GetFlags() { return 1; }

    bool CreateArena(void* address, unsigned long size, bool reuse);
    // Throws std::invalid_argument when no arena holds block.
    CVirtualArena* FindArenaOfBlock(void* block);
    void DestroyCurrentArena();

    // For inspection: the queue in order of trial, front first.
    const std::deque<CVirtualArena*>& Arenas() const { return m_arenas; }

private:
    CVirtualArena* FindArenaOfAddress(uintptr_t block);
    [[gnu::noinline]] void LinkIntoArenaOf(uintptr_t block);
    void DestroyAllArenas();
    [[gnu::noinline]] void* AllocSlowly(unsigned long blockSize);
    void* AllocInNewArena(unsigned long blockSize);

    bool m_bReuse;
    std::deque<CVirtualArena*> m_arenas;
    // The queue's front, or null: kept beside it for the common cases of
    // Alloc and Free, which then need no look into the queue.
    CVirtualArena* m_pFront = nullptr;
    unsigned long m_cbArena;
    COM_IMemory* m_pOwner;
};

// The memory object. Holds one module lock while its count is above zero.
// The count is atomic: one object may be served to every thread as a shared
// service. Its allocations are not guarded, so only one thread at a time may
// use them.
class CMemory : public COM_IMemory, public COM_CComCoClass<CMemory, &COM_CLSID_Memory> {
public:
    COM_DECLARE_REGISTRY(L"ZarvoCom.Memory", nullptr, nullptr)

    CMemory() = default;
    CMemory(const CMemory&) = delete;
    CMemory& operator=(const CMemory&) = delete;

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override;
    unsigned long AddRef() override;
    unsigned long Release() override;

    HRESULT SetStrategy(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size) override;
    void* Alloc(unsigned long size) override;
    void Free(void* p) override;
    HRESULT Reset() override;
    HRESULT GetUsageInfo(unsigned long* allocs, unsigned long* frees, unsigned long* committed,
                         unsigned long* available) override;
    HRESULT GetFreeInfo(unsigned long* freeBytes, unsigned long* overheadBytes, unsigned long* freeBlocks) override;
    HRESULT GetHeapStatus(HEAPSTATUS* status) override;
    HRESULT GetStrategyFlags(ALLOCATION_STRATEGY strategy, unsigned long* flags) override;

    // For inspection: the installed strategy, or null.
    CAllocationStrategy* Strategy() const { return m_pStrategy; }

private:
    ~CMemory() override;

    CAllocationStrategy* BuildStrategy(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size);
    void DropStrategy();

    std::atomic<uint64_t> m_cRef{0};
    uint64_t m_nAllocs = 0;
    uint64_t m_nFrees = 0;
    CAllocationStrategy* m_pStrategy = nullptr;
};

#endif
