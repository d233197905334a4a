// The arena strategy: a queue of arenas in order of trial. The arena that last
// served a request stays in front, failing ones rotate to the back, and a new
// one is mapped at the front when all have failed.
#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>

#include "memoryInternal.h"

const char g_szMeBlockNotInArena[] = "CVirtualAllocationStrategy::FindArenaOfBlock: Block is not in any arena";

extern "C" {
const wchar_t g_wszMeAllocInArenaFailed[] =
    L"CVirtualAllocationStrategy::AllocInArena failed (out of memory in this arena) - will retry in next arena\r\n";
const wchar_t g_wszMeNewArenaFailed[] =
    L"CVirtualAllocationStrategy:Alloc Failed to create a new arena - EFFECTIVELY OUT OF VIRTUAL MEMORY";
const wchar_t g_wszMeNewArenaAllocFailed[] =
    L"CVirtualAllocationStrategy::Alloc Failed to allocate memory in new arena - OUT OF MEMORY *OR* MEMORY REQUEST "
    L"EXCEEDS ARENA SIZE";
const wchar_t g_wszMeBlockNotInArena[] =
    L"CVirtualAllocationStrategy::FindArenaOfBlock: Block is not in any arena";
}

CVirtualAllocationStrategy::CVirtualAllocationStrategy(void* address, unsigned long size, bool reuse,
                                                       COM_IMemory* owner)
    : m_bReuse(reuse), m_cbArena(size), m_pOwner(owner) {
    if (!CreateArena(address, size, reuse)) throw std::bad_alloc();
}

CVirtualAllocationStrategy::~CVirtualAllocationStrategy() { DestroyAllArenas(); }

bool CVirtualAllocationStrategy::CreateArena(void* address, unsigned long size, bool reuse) {
    try {
        std::unique_ptr<CVirtualArena> arena(new CVirtualArena(m_pOwner, reuse));
        if (!arena->Initialize(address, size)) return false;
        m_arenas.push_front(arena.get());
        m_pFront = m_arenas.front();
        arena.release();
        return true;
    } catch (const std::bad_alloc&) {
        // Exhaustion shows only as a failed arena, never as an exception.
        return false;
    }
}

void CVirtualAllocationStrategy::DestroyCurrentArena() {
    if (m_arenas.empty()) return;
    delete m_arenas.front();
    m_arenas.pop_front();
    m_pFront = m_arenas.empty() ? nullptr : m_arenas.front();
}

void CVirtualAllocationStrategy::DestroyAllArenas() {
    while (!m_arenas.empty()) DestroyCurrentArena();
}

void* CVirtualAllocationStrategy::Alloc(unsigned long size) {
    const unsigned long overhead = CVirtualArena::HEADERSIZE + CVirtualArena::TRAILERSIZE;
    // A size whose block would wrap is refused rather than turned into a small
    // block; it could never fit an arena anyway.
    if (size > ME_SIZE_TYPE_MAXPOS() - overhead - 8) return nullptr;
    const unsigned long blockSize = ((overhead - 1 + std::max(size, 8UL)) & ~7UL) + 8;

    if (m_pFront) {
        if (void* p = m_pFront->AllocQuickly(blockSize)) return p;
    }
    return AllocSlowly(blockSize);
}

// Kept out of line, so that the common case above saves no registers for it.
// Trying the arenas in turn and moving each failure to the back comes to one
// rotation by the number of failures; when all fail it is a full turn and the
// order is unchanged.
void* CVirtualAllocationStrategy::AllocSlowly(unsigned long blockSize) {
    if (!m_arenas.empty()) {
        if (void* p = m_arenas.front()->Alloc(blockSize)) return p;
    }
    for (size_t i = 1; i < m_arenas.size(); ++i) {
        if (void* p = m_arenas[i]->Alloc(blockSize)) {
            std::rotate(m_arenas.begin(), m_arenas.begin() + static_cast<std::ptrdiff_t>(i), m_arenas.end());
            m_pFront = m_arenas.front();
            return p;
        }
    }
    return AllocInNewArena(blockSize);
}

// Null when no arena can be mapped, or when the request exceeds an empty
// arena; the new arena stays in front either way.
void* CVirtualAllocationStrategy::AllocInNewArena(unsigned long blockSize) {
    if (!CreateArena(nullptr, m_cbArena, m_bReuse)) return nullptr;
    return m_arenas.front()->Alloc(blockSize);
}

void CVirtualAllocationStrategy::Free(void* p) {
    if (!m_bReuse) return;
    // Integer arithmetic: p may come from anywhere, and stepping a foreign
    // pointer back a word is not defined.
    const uintptr_t block = reinterpret_cast<uintptr_t>(p) - CVirtualArena::HEADERSIZEUN * sizeof(uint64_t);
    // A misaligned address is no block's start, and linking it would write a
    // misaligned word.
    if (block % sizeof(uint64_t) != 0) throw std::invalid_argument(g_szMeBlockNotInArena);
    // Most blocks go back to the arena that serves requests now; asking it
    // first keeps the walk, and the registers it needs, out of this path.
    if (m_pFront && m_pFront->HoldsBlock(block)) {
        return m_pFront->LinkFreeBlock(reinterpret_cast<void*>(block));
    }
    LinkIntoArenaOf(block);
}

void CVirtualAllocationStrategy::LinkIntoArenaOf(uintptr_t block) {
    FindArenaOfAddress(block)->LinkFreeBlock(reinterpret_cast<void*>(block));
}

CVirtualArena* CVirtualAllocationStrategy::FindArenaOfBlock(void* block) {
    return FindArenaOfAddress(reinterpret_cast<uintptr_t>(block));
}

// Bounded by each arena's bump pointer: above it nothing was handed out.
CVirtualArena* CVirtualAllocationStrategy::FindArenaOfAddress(uintptr_t block) {
    for (CVirtualArena* arena : m_arenas) {
        if (arena->HoldsBlock(block)) return arena;
    }
    throw std::invalid_argument(g_szMeBlockNotInArena);
}

HRESULT CVirtualAllocationStrategy::Reset() {
    DestroyAllArenas();
    if (!CreateArena(nullptr, m_cbArena, m_bReuse)) throw std::bad_alloc();
    return S_OK;
}

unsigned long CVirtualAllocationStrategy::GetCommittedMemory() {
    unsigned long total = 0;
    for (const CVirtualArena* arena : m_arenas) total += arena->GetCommittedMemory();
    return total;
}

unsigned long CVirtualAllocationStrategy::GetAvailableMemory() {
    unsigned long total = 0;
    for (const CVirtualArena* arena : m_arenas) total += arena->GetAvailableMemory();
    return total;
}

bool CVirtualAllocationStrategy::GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes,
                                             unsigned long& freeBlocks) {
    if (!m_bReuse) return false;
    freeBytes = 0;
    overheadBytes = 0;
    freeBlocks = 0;
    for (const CVirtualArena* arena : m_arenas) arena->GetFreeInfo(freeBytes, overheadBytes, freeBlocks);
    return true;
}

HEAPSTATUS CVirtualAllocationStrategy::GetHeapStatus() { return 0; }
