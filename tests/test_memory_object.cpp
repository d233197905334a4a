// The memory object: lifetime, strategy selection and the simple strategies.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cerrno>
#include <tuple>
#include <vector>

#include "memory/memoryInternal.h"

namespace {

using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;
typedef unsigned long UL;
typedef std::tuple<HRESULT, UL, UL, UL, UL> Usage;  // allocs, frees, committed, available
typedef std::tuple<HRESULT, UL, UL, UL> FreeInfo;   // bytes, overhead, blocks
const UL kUntouched = 0xdeadbeef;

MemoryPtr NewMemory(int strategy = 0, void* buffer = nullptr, UL size = 0, HRESULT expected = S_OK) {
    MemoryPtr memory;
    EXPECT_EQ(CMemory::CreateInstance(COM_IID_IMemory, memory.OutVoid()), S_OK);
    if (strategy) {
        EXPECT_EQ(memory->SetStrategy(static_cast<ALLOCATION_STRATEGY>(strategy), buffer, size), expected);
    }
    return memory;
}

Usage UsageOf(COM_IMemory* memory) {
    UL a = kUntouched, f = kUntouched, c = kUntouched, v = kUntouched;
    const HRESULT hr = memory->GetUsageInfo(&a, &f, &c, &v);
    return Usage(hr, a, f, c, v);
}

FreeInfo FreeInfoOf(COM_IMemory* memory) {
    UL bytes = kUntouched, overhead = kUntouched, blocks = kUntouched;
    const HRESULT hr = memory->GetFreeInfo(&bytes, &overhead, &blocks);
    return FreeInfo(hr, bytes, overhead, blocks);
}

bool IsMapped(void* page) {
    unsigned char resident = 0;
    return mincore(page, 1, &resident) == 0 || errno != ENOMEM;
}

}  // namespace

TEST(MemoryObject, HoldsOneModuleLockWhileReferencedAndAnswersOnlyItsInterfaces) {
    const int before = g_theModule.GetLockCount();
    {
        MemoryPtr memory = NewMemory();
        MemoryPtr second = memory;  // a second reference is not a second lock
        EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
        utlAutoIf<COM_IUnknown, &COM_IID_IUnknown> unknown;
        ASSERT_EQ(unknown.QueryFrom(memory), S_OK);
        EXPECT_EQ(static_cast<void*>(unknown.Get()), static_cast<void*>(memory.Get()));
    }
    EXPECT_EQ(g_theModule.GetLockCount(), before);
    void* out = reinterpret_cast<void*>(kUntouched);
    EXPECT_EQ(CMemory::CreateInstance(COM_IID_IRegistry, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(g_theModule.GetLockCount(), before);  // the object went again at once
}

// A fresh object, and objects whose standard strategy was replaced by one
// that failed: an unknown value, or arenas that cannot be mapped (empty, or
// too large to round to pages).
TEST(MemoryObject, WithoutStrategyCallsFailHarmlesslyButFlagsAreAnswered) {
    MemoryPtr objects[] = {NewMemory(), NewMemory(1), NewMemory(1), NewMemory(1), NewMemory(1), NewMemory(1)};
    EXPECT_EQ(objects[1]->SetStrategy(static_cast<ALLOCATION_STRATEGY>(5), nullptr, 32), E_UNEXPECTED);
    EXPECT_EQ(objects[2]->SetStrategy(static_cast<ALLOCATION_STRATEGY>(0), nullptr, 32), E_UNEXPECTED);
    const UL unmappable[] = {0, ~0UL, ~0UL - 4096};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(objects[3 + i]->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, unmappable[i]), E_FAIL);
    for (MemoryPtr& memory : objects) {
        HEAPSTATUS status = 7;
        EXPECT_EQ(UsageOf(memory), Usage(E_FAIL, kUntouched, kUntouched, kUntouched, kUntouched));
        EXPECT_EQ(FreeInfoOf(memory), FreeInfo(E_FAIL, kUntouched, kUntouched, kUntouched));
        EXPECT_EQ(memory->GetHeapStatus(&status), E_UNEXPECTED);
        EXPECT_EQ(status, 7);
        EXPECT_EQ(memory->Alloc(8), nullptr);
        memory->Free(&status);
        EXPECT_EQ(memory->Reset(), E_UNEXPECTED);
    }
    MemoryPtr& memory = objects[0];
    for (int value : {0, 1, 2, 3, 4, 5}) {
        UL flags = kUntouched;
        const bool known = value >= 1 && value <= 4;
        EXPECT_EQ(memory->GetStrategyFlags(static_cast<ALLOCATION_STRATEGY>(value), &flags),
                  known ? S_OK : E_UNEXPECTED) << value;
        EXPECT_EQ(flags, known ? 1u : kUntouched) << value;
    }
    EXPECT_EQ(memory->GetStrategyFlags(ALLOCATION_STRATEGY_LINEAR, nullptr), E_POINTER);
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_LINEAR, nullptr, 0), S_OK);
    UL a, b, c;
    EXPECT_EQ(memory->GetUsageInfo(&a, &b, &c, nullptr), E_POINTER);
    EXPECT_EQ(memory->GetFreeInfo(nullptr, &a, &b), E_POINTER);
    EXPECT_EQ(memory->GetHeapStatus(nullptr), E_POINTER);
}

// Reset maps one fresh arena in place of all, and replacing the strategy or
// releasing the object unmaps what is left.
TEST(MemoryObject, ResetReplacingTheStrategyOrReleasingTheObjectUnmapsEveryArena) {
    const UL page = 4096;
    MemoryPtr memory = NewMemory(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, page);
    char* blocks[3];
    for (char*& block : blocks) block = static_cast<char*>(memory->Alloc(page - 8)) - 8;  // one arena each
    ASSERT_EQ(memory->Reset(), S_OK);
    char* fresh = static_cast<char*>(memory->Alloc(8)) - 8;
    for (char* old : blocks) EXPECT_TRUE(old == fresh || !IsMapped(old));
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_STANDARD, nullptr, 0), S_OK);
    EXPECT_FALSE(IsMapped(fresh));
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 0, 0, ~0UL, ~0UL));
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL, nullptr, 1 << 16), S_OK);
    fresh = static_cast<char*>(memory->Alloc(100)) - 8;
    memory.Reset();
    EXPECT_FALSE(IsMapped(fresh));
}

// No rounding, no alignment; a request beyond what remains, however large,
// fails without moving anything or being counted. Under the address
// sanitizer, a strategy that freed the caller's buffer would be reported at
// the end.
TEST(LinearStrategy, HundredByteBufferServesSixtyThenFortyFreeReclaimsNothingResetRewinds) {
    std::vector<char> buffer(100);
    MemoryPtr memory = NewMemory(ALLOCATION_STRATEGY_LINEAR, buffer.data(), buffer.size());
    EXPECT_EQ(memory->Alloc(60), buffer.data());
    for (UL size : {~0UL, ~0UL - 59, ~0UL - 99, 1UL << 63, 41UL}) EXPECT_EQ(memory->Alloc(size), nullptr) << size;
    void* p = memory->Alloc(40);
    EXPECT_EQ(p, buffer.data() + 60);
    memory->Free(nullptr);
    memory->Free(p);
    // Null frees do not count; a free gives nothing back.
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 2, 1, 100, 0));
    EXPECT_EQ(FreeInfoOf(memory), FreeInfo(S_OK, 0, 0, 0));
    EXPECT_EQ(memory->Reset(), S_OK);
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 0, 0, 100, 100));
    EXPECT_EQ(memory->Alloc(100), buffer.data());
    EXPECT_EQ(CLinearAllocationStrategy(nullptr, 100).GetAvailableMemory(), 0u);  // a null buffer is an empty one
    memory.Reset();
    buffer[99] = 1;
}

TEST(StandardStrategy, WritesNoFreeInfoAndItsHeapStatusIsZero) {
    MemoryPtr memory = NewMemory(ALLOCATION_STRATEGY_STANDARD, reinterpret_cast<void*>(kUntouched), 3);
    EXPECT_EQ(FreeInfoOf(memory), FreeInfo(E_NOTIMPL, kUntouched, kUntouched, kUntouched));
    HEAPSTATUS status = 7;
    EXPECT_EQ(memory->GetHeapStatus(&status), S_OK);
    EXPECT_EQ(status, 0);
}
