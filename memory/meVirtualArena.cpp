// Arenas: one mapping of anonymous memory each, a bump pointer, a committed
// mark in whole pages and, with reuse, a free list behind a sentinel block.
#include <sys/mman.h>
#include <unistd.h>

#include "memoryInternal.h"

extern "C" {
const wchar_t g_wszMeArenaCreating[] = L"CVirtualArena: creating arena of size 0x";
const wchar_t g_wszMeArenaReserved[] = L"CVirtualArena: reserved address 0x";
const wchar_t g_wszMeArenaDecommitting[] = L"CVirtualArena: destructor decommitting 0x";
const wchar_t g_wszMeArenaFreeing[] = L"CVirtualArena: destructor freeing 0x";
const wchar_t g_wszMeCommitFailed[] =
    L"CVirtualArena::Alloc failed (unable to commit memory in this arena) - will retry in next arena\r\n";
}

uint64_t CVirtualArena::COMMITPAGESIZE = 0;
uint32_t CVirtualArena::HEADERSIZE = 8;
uint32_t CVirtualArena::HEADERSIZEUN = 1;
uint32_t CVirtualArena::TRAILERSIZE = 0;
uint32_t CVirtualArena::TRAILERSIZEUN = 0;

namespace {

// Every word of a block is 8 bytes; links are stored as addresses.
uint64_t* Words(void* block) { return static_cast<uint64_t*>(block); }

}  // namespace

CVirtualArena::CVirtualArena(COM_IMemory* owner, bool reuse) : m_pOwner(owner), m_bReuse(reuse) {}

CVirtualArena::~CVirtualArena() {
    if (!m_bInitialized) return;
    DecommitAll();
    DereserveAll();
}

void CVirtualArena::ClearFreeList() {
    m_rgSentinel[0] = 16;
    SetNextFree(m_rgSentinel, nullptr);
    m_pFreeListHead = m_rgSentinel;
}

bool CVirtualArena::Initialize(void* address, unsigned long size) {
    // The sentinel's link word must lie within its words.
    if (HEADERSIZEUN > kSentinelWords - 1) return false;
    HEADERSIZEUN = 1;
    COMMITPAGESIZE = static_cast<uint64_t>(getpagesize());
    HEADERSIZE = 8;
    TRAILERSIZE = 0;
    TRAILERSIZEUN = 0;

    // Rounding up would wrap past the top of the address space.
    if (size > ~0UL - (COMMITPAGESIZE - 1)) return false;
    const unsigned long length = (size + COMMITPAGESIZE - 1) / COMMITPAGESIZE * COMMITPAGESIZE;
    void* mapping = mmap(address, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == nullptr || mapping == MAP_FAILED) return false;

    m_pReservedBegin = static_cast<char*>(mapping);
    m_pReservedEnd = m_pReservedBegin + length;
    m_pNext = m_pReservedBegin;
    m_pCommittedEnd = m_pReservedBegin;
    if (m_bReuse) ClearFreeList();
    m_bInitialized = true;
    return true;
}

// Committing is bookkeeping only: the whole mapping is usable from the start.
bool CVirtualArena::Commit(const char* top) {
    if (!m_pCommittedEnd) return false;
    const unsigned long needed = static_cast<unsigned long>(top - m_pCommittedEnd);
    m_pCommittedEnd += (needed + COMMITPAGESIZE - 1) / COMMITPAGESIZE * COMMITPAGESIZE;
    return true;
}

void* CVirtualArena::Alloc(unsigned long blockSize) {
    if (m_bReuse && m_pFreeListHead && NextFree(m_pFreeListHead)) return AllocFromFreeList(blockSize);
    return Bump(blockSize);
}

void* CVirtualArena::Bump(unsigned long blockSize) {
    // Sizes are compared, so a huge request never forms a pointer past the end.
    if (blockSize > static_cast<unsigned long>(m_pReservedEnd - m_pNext)) return nullptr;
    char* block = m_pNext;
    char* top = block + blockSize;
    if (top > m_pCommittedEnd && !Commit(top)) return nullptr;
    m_pNext = top;
    Words(block)[0] = blockSize;
    return block + HEADERSIZE;
}

// The first free block did not fit: first fit over the rest, or a bump when
// none fits.
void* CVirtualArena::AllocFromFreeList(unsigned long blockSize) {
    void* prev = nullptr;
    FindPtrToFreeBlock(blockSize, prev);
    if (!prev) return Bump(blockSize);
    return TakeFreeBlock(Words(prev), NextFree(Words(prev)), blockSize);
}

unsigned long CVirtualArena::GetCommittedMemory() const {
    return static_cast<unsigned long>(m_pCommittedEnd - m_pReservedBegin);
}

unsigned long CVirtualArena::GetAvailableMemory() const {
    return static_cast<unsigned long>(m_pReservedEnd - m_pCommittedEnd);
}

void CVirtualArena::GetFreeInfo(unsigned long& freeBytes, unsigned long& overheadBytes,
                                unsigned long& freeBlocks) const {
    if (!m_pFreeListHead) return;
    const unsigned long overhead = HEADERSIZE + TRAILERSIZE;
    for (const uint64_t* block = NextFree(m_pFreeListHead); block; block = NextFree(block)) {
        freeBytes += block[0] - overhead;
        overheadBytes += overhead;
        ++freeBlocks;
    }
}

void CVirtualArena::FindPtrToFreeBlock(unsigned long blockSize, void*& prev) const {
    prev = nullptr;
    if (!m_pFreeListHead) return;
    for (uint64_t* before = m_pFreeListHead; const uint64_t* block = NextFree(before); before = NextFree(before)) {
        if (block[0] >= blockSize) {
            prev = before;
            return;
        }
    }
}

bool CVirtualArena::DecommitAll() {
    m_pCommittedEnd = m_pReservedBegin;
    return true;
}

bool CVirtualArena::Reset() {
    m_pNext = m_pReservedBegin;
    if (m_bReuse) ClearFreeList();
    DecommitAll();
    return false;
}

bool CVirtualArena::DereserveAll() {
    return munmap(m_pReservedBegin, static_cast<size_t>(m_pReservedEnd - m_pReservedBegin)) == 0;
}
