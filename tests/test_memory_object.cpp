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

TEST(MemoryObject, ReplacingTheStrategyOrReleasingTheObjectUnmapsArenasAndClearsCounts) {
    MemoryPtr memory = NewMemory(ALLOCATION_STRATEGY_VIRTUAL, nullptr, 1 << 16);
    char* p = static_cast<char*>(memory->Alloc(100));
    ASSERT_TRUE(p && IsMapped(p - 8));  // the first block starts the arena's first page
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_STANDARD, nullptr, 0), S_OK);
    EXPECT_FALSE(IsMapped(p - 8));
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 0, 0, ~0UL, ~0UL));
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, 4096), S_OK);
    p = static_cast<char*>(memory->Alloc(8));
    ASSERT_NE(p, nullptr);
    memory.Reset();
    EXPECT_FALSE(IsMapped(p - 8));
}

// Under the address sanitizer, a strategy that freed the caller's buffer would
// be reported at the end.
TEST(LinearStrategy, HundredByteBufferServesSixtyThenFortyFreeReclaimsNothingResetRewinds) {
    std::vector<char> buffer(100);
    MemoryPtr memory = NewMemory(ALLOCATION_STRATEGY_LINEAR, buffer.data(), buffer.size());
    EXPECT_EQ(memory->Alloc(60), buffer.data());
    EXPECT_EQ(memory->Alloc(60), nullptr);
    void* p = memory->Alloc(40);
    EXPECT_EQ(p, buffer.data() + 60);  // no rounding, no alignment
    EXPECT_EQ(memory->Alloc(1), nullptr);
    memory->Free(nullptr);
    memory->Free(p);
    // Failed requests and null frees do not count; a free gives nothing back.
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 2, 1, 100, 0));
    EXPECT_EQ(FreeInfoOf(memory), FreeInfo(S_OK, 0, 0, 0));
    EXPECT_EQ(memory->Reset(), S_OK);
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 0, 0, 100, 100));
    EXPECT_EQ(memory->Alloc(100), buffer.data());
    memory.Reset();
    buffer[99] = 1;
}

TEST(LinearStrategy, RefusesRequestsBeyondWhatRemainsWithoutMoving) {
    char buffer[64];
    CLinearAllocationStrategy linear(buffer, sizeof buffer);
    EXPECT_EQ(linear.Alloc(3), buffer);
    EXPECT_EQ(linear.Alloc(7), buffer + 3);
    for (UL size : {~0UL, ~0UL - 9, ~0UL - 63, 1UL << 63, 55UL}) {
        EXPECT_EQ(linear.Alloc(size), nullptr) << size;
        EXPECT_EQ(linear.GetAvailableMemory(), 54u) << size;
    }
    EXPECT_EQ(linear.Alloc(54), buffer + 10);
    EXPECT_EQ(CLinearAllocationStrategy(nullptr, 100).Alloc(1), nullptr);  // a null buffer holds nothing
}

TEST(StandardStrategy, ResetIsNotImplementedAndKeepsTheCounts) {
    MemoryPtr memory = NewMemory(ALLOCATION_STRATEGY_STANDARD, reinterpret_cast<void*>(kUntouched), 3);
    void* a = memory->Alloc(24);
    memory->Free(memory->Alloc(1000));
    EXPECT_EQ(memory->Reset(), E_NOTIMPL);
    EXPECT_EQ(UsageOf(memory), Usage(S_OK, 2, 1, ~0UL, ~0UL));
    EXPECT_EQ(FreeInfoOf(memory), FreeInfo(E_NOTIMPL, kUntouched, kUntouched, kUntouched));
    HEAPSTATUS status = 7;
    EXPECT_EQ(memory->GetHeapStatus(&status), S_OK);
    EXPECT_EQ(status, 0);
    memory->Free(a);
}
