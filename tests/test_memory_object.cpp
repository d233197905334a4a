// The memory object: lifetime, strategy selection and the simple strategies.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cerrno>
#include <vector>

#include "memory/memoryInternal.h"

namespace {

using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;
const unsigned long kUntouched = 0xdeadbeef;

MemoryPtr NewMemory() {
    MemoryPtr memory;
    EXPECT_EQ(CMemory::CreateInstance(COM_IID_IMemory, memory.OutVoid()), S_OK);
    return memory;
}

struct Usage {
    unsigned long allocs = kUntouched, frees = kUntouched, committed = kUntouched, available = kUntouched;
    HRESULT Read(COM_IMemory* memory) { return memory->GetUsageInfo(&allocs, &frees, &committed, &available); }
};

struct FreeInfo {
    unsigned long bytes = kUntouched, overhead = kUntouched, blocks = kUntouched;
    HRESULT Read(COM_IMemory* memory) { return memory->GetFreeInfo(&bytes, &overhead, &blocks); }
};

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

TEST(MemoryObject, WithoutStrategyReportsFailuresLeavesOutputsAndStillAnswersFlags) {
    MemoryPtr memory = NewMemory();
    Usage usage;
    EXPECT_EQ(usage.Read(memory), E_FAIL);
    EXPECT_EQ(usage.allocs, kUntouched);
    FreeInfo info;
    EXPECT_EQ(info.Read(memory), E_FAIL);
    EXPECT_EQ(info.blocks, kUntouched);
    HEAPSTATUS status = 7;
    EXPECT_EQ(memory->GetHeapStatus(&status), E_UNEXPECTED);
    EXPECT_EQ(status, 7);
    for (int value : {0, 1, 2, 3, 4, 5}) {
        unsigned long flags = kUntouched;
        const bool known = value >= 1 && value <= 4;
        EXPECT_EQ(memory->GetStrategyFlags(static_cast<ALLOCATION_STRATEGY>(value), &flags),
                  known ? S_OK : E_UNEXPECTED) << value;
        EXPECT_EQ(flags, known ? 1u : kUntouched) << value;
    }
    // Calls that need a strategy fail harmlessly rather than crash.
    EXPECT_EQ(memory->Alloc(8), nullptr);
    memory->Free(&status);
    EXPECT_EQ(memory->Reset(), E_UNEXPECTED);
    EXPECT_EQ(memory->GetStrategyFlags(ALLOCATION_STRATEGY_LINEAR, nullptr), E_POINTER);

    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_LINEAR, nullptr, 0), S_OK);
    unsigned long a, b, c;
    EXPECT_EQ(memory->GetUsageInfo(&a, &b, &c, nullptr), E_POINTER);
    EXPECT_EQ(memory->GetFreeInfo(nullptr, &a, &b), E_POINTER);
    EXPECT_EQ(memory->GetHeapStatus(nullptr), E_POINTER);
}

TEST(MemoryObject, FailedSetStrategyLeavesNoStrategyInstalled) {
    MemoryPtr memory = NewMemory();
    char buffer[32];
    for (int value : {5, 0}) {
        ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_LINEAR, buffer, sizeof buffer), S_OK);
        EXPECT_EQ(memory->SetStrategy(static_cast<ALLOCATION_STRATEGY>(value), buffer, 32), E_UNEXPECTED);
        EXPECT_EQ(Usage().Read(memory), E_FAIL) << value;
    }
    // Arenas that cannot be mapped: empty, or too large to round to pages.
    for (unsigned long size : {0UL, ~0UL, ~0UL - 4096}) {
        ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_STANDARD, nullptr, 0), S_OK);
        EXPECT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, size), E_FAIL) << size;
        EXPECT_EQ(Usage().Read(memory), E_FAIL) << size;
    }
}

TEST(MemoryObject, ReplacingTheStrategyOrReleasingTheObjectUnmapsArenasAndClearsCounts) {
    MemoryPtr memory = NewMemory();
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL, nullptr, 1 << 16), S_OK);
    char* p = static_cast<char*>(memory->Alloc(100));
    ASSERT_NE(p, nullptr);
    ASSERT_TRUE(IsMapped(p - 8));  // the first block starts the arena's first page
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_STANDARD, nullptr, 0), S_OK);
    EXPECT_FALSE(IsMapped(p - 8));
    Usage usage;
    ASSERT_EQ(usage.Read(memory), S_OK);
    EXPECT_EQ(usage.allocs, 0u);

    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, 4096), S_OK);
    p = static_cast<char*>(memory->Alloc(8));
    ASSERT_NE(p, nullptr);
    memory.Reset();
    EXPECT_FALSE(IsMapped(p - 8));
}

TEST(LinearStrategy, HundredByteBufferServesSixtyThenFortyAndNothingMore) {
    MemoryPtr memory = NewMemory();
    char buffer[100];
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_LINEAR, buffer, sizeof buffer), S_OK);
    EXPECT_EQ(memory->Alloc(60), buffer);
    EXPECT_EQ(memory->Alloc(60), nullptr);
    EXPECT_EQ(memory->Alloc(40), buffer + 60);
    EXPECT_EQ(memory->Alloc(1), nullptr);
    Usage usage;
    ASSERT_EQ(usage.Read(memory), S_OK);
    EXPECT_EQ(usage.allocs, 2u);  // failed requests do not count
    EXPECT_EQ(usage.committed, 100u);
    EXPECT_EQ(usage.available, 0u);
}

TEST(LinearStrategy, NeitherRoundsNorAlignsAndRefusesHugeRequestsWithoutMoving) {
    char buffer[64];
    CLinearAllocationStrategy linear(buffer, sizeof buffer);
    EXPECT_EQ(linear.Alloc(3), buffer);
    EXPECT_EQ(linear.Alloc(7), buffer + 3);
    for (unsigned long size : {~0UL, ~0UL - 9, ~0UL - 63, 1UL << 63, 55UL}) {
        EXPECT_EQ(linear.Alloc(size), nullptr) << size;
        EXPECT_EQ(linear.GetAvailableMemory(), 54u) << size;
    }
    EXPECT_EQ(linear.Alloc(54), buffer + 10);
    CLinearAllocationStrategy empty(nullptr, 100);  // a null buffer holds nothing
    EXPECT_EQ(empty.Alloc(1), nullptr);
}

// Under the address sanitizer, a strategy that freed the caller's buffer would
// be reported here.
TEST(LinearStrategy, FreeCountsButReclaimsNothingResetRewindsAndTheBufferStaysTheCallers) {
    std::vector<char> buffer(100);
    MemoryPtr memory = NewMemory();
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_LINEAR, buffer.data(), buffer.size()), S_OK);
    void* p = memory->Alloc(30);
    memory->Free(nullptr);
    memory->Free(p);
    Usage usage;
    ASSERT_EQ(usage.Read(memory), S_OK);
    EXPECT_EQ(usage.frees, 1u);
    EXPECT_EQ(usage.available, 70u);
    FreeInfo info;
    EXPECT_EQ(info.Read(memory), S_OK);
    EXPECT_EQ(info.bytes + info.overhead + info.blocks, 0u);

    EXPECT_EQ(memory->Reset(), S_OK);
    ASSERT_EQ(usage.Read(memory), S_OK);
    EXPECT_EQ(usage.allocs + usage.frees, 0u);
    EXPECT_EQ(memory->Alloc(100), buffer.data());
    memory.Reset();
    buffer[99] = 1;
}

TEST(StandardStrategy, ResetIsNotImplementedAndKeepsTheCounts) {
    MemoryPtr memory = NewMemory();
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_STANDARD, reinterpret_cast<void*>(kUntouched), 3), S_OK);
    void* a = memory->Alloc(24);
    void* b = memory->Alloc(1000);
    memory->Free(a);
    EXPECT_EQ(memory->Reset(), E_NOTIMPL);
    Usage usage;
    ASSERT_EQ(usage.Read(memory), S_OK);
    EXPECT_EQ(usage.allocs, 2u);
    EXPECT_EQ(usage.frees, 1u);
    EXPECT_EQ(usage.committed, ~0UL);
    EXPECT_EQ(usage.available, ~0UL);
    FreeInfo info;
    EXPECT_EQ(info.Read(memory), E_NOTIMPL);
    EXPECT_EQ(info.bytes, kUntouched);
    HEAPSTATUS status = 7;
    EXPECT_EQ(memory->GetHeapStatus(&status), S_OK);
    EXPECT_EQ(status, 0);
    memory->Free(b);
}
