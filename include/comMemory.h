// The memory object's interface: an allocator a component creates for itself
// (COM_CLSID_Memory) and points at one of four allocation strategies.
#ifndef VELTCOM_COMMEMORY_H
#define VELTCOM_COMMEMORY_H

#include "comUnknown.h"

// A 32-bit value: components built separately pass it across the interface.
enum ALLOCATION_STRATEGY : int {
    // The process heap (malloc and free).
    ALLOCATION_STRATEGY_STANDARD = 1,
    // A bump allocator over a buffer the caller supplies and keeps alive;
    // sizes are not rounded and results not aligned.
    ALLOCATION_STRATEGY_LINEAR = 2,
    // Arenas of reserved address space; Free does nothing.
    ALLOCATION_STRATEGY_VIRTUAL = 3,
    // Arenas whose freed blocks are found again, first fit.
    ALLOCATION_STRATEGY_VIRTUAL_REUSE = 4
};

// What a strategy reports about its heap; every strategy of the runtime
// reports 0.
typedef int HEAPSTATUS;

// Slot order is a binary contract: never reorder.
class COM_IMemory : public COM_IUnknown {
public:
    // Destroys the installed strategy first, whatever the outcome: its memory
    // is abandoned. For the virtual strategies buffer is an address hint for
    // the first arena and size the arena size. An unknown value gives
    // E_UNEXPECTED, a strategy that cannot be built E_FAIL; both leave none.
    virtual HRESULT SetStrategy(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size) = 0;
    // Null when the strategy cannot satisfy the request.
    virtual void* Alloc(unsigned long size) = 0;
    // A null p is ignored. With arena reuse, a pointer no arena holds throws
    // std::invalid_argument.
    virtual void Free(void* p) = 0;
    // Gives all memory back to the strategy and clears the counts; a strategy
    // that cannot reset (the standard one: E_NOTIMPL) keeps them.
    virtual HRESULT Reset() = 0;
    virtual HRESULT GetUsageInfo(unsigned long* allocs, unsigned long* frees, unsigned long* committed,
                                 unsigned long* available) = 0;
    // E_NOTIMPL, outputs untouched, for strategies that keep no free blocks.
    virtual HRESULT GetFreeInfo(unsigned long* freeBytes, unsigned long* overheadBytes,
                                unsigned long* freeBlocks) = 0;
    virtual HRESULT GetHeapStatus(HEAPSTATUS* status) = 0;
    // Needs no strategy installed.
    virtual HRESULT GetStrategyFlags(ALLOCATION_STRATEGY strategy, unsigned long* flags) = 0;
};

// Diagnostic texts of the arena strategy, exported for tools that report on
// it; the runtime itself writes none of them.
extern "C" {
// An arena is being created; its size in hexadecimal follows.
VELTCOM_API extern const wchar_t g_wszMeArenaCreating[];
// An arena's mapping; its address in hexadecimal follows.
VELTCOM_API extern const wchar_t g_wszMeArenaReserved[];
// The two steps of an arena's destruction; an address follows each.
VELTCOM_API extern const wchar_t g_wszMeArenaDecommitting[];
VELTCOM_API extern const wchar_t g_wszMeArenaFreeing[];
// A request did not fit one arena; the next is tried.
VELTCOM_API extern const wchar_t g_wszMeAllocInArenaFailed[];
// An arena could not advance its committed mark.
VELTCOM_API extern const wchar_t g_wszMeCommitFailed[];
// No new arena could be mapped.
VELTCOM_API extern const wchar_t g_wszMeNewArenaFailed[];
// A request did not fit even a new, empty arena.
VELTCOM_API extern const wchar_t g_wszMeNewArenaAllocFailed[];
// Free of a pointer that no arena holds.
VELTCOM_API extern const wchar_t g_wszMeBlockNotInArena[];
}

#endif
