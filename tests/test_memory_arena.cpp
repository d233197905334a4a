// Arenas and the arena strategy: block layout, the free list, the committed
// mark and the queue of arenas. Random sequences of every strategy are checked
// for overlaps, lost contents and totals by the memory fuzz target.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "memory/memoryInternal.h"

namespace {

typedef CVirtualAllocationStrategy Strategy;
typedef std::pair<unsigned long, unsigned long> Pair;
const unsigned long kPage = static_cast<unsigned long>(getpagesize());

uintptr_t BlockOf(const void* p) { return reinterpret_cast<uintptr_t>(p) - 8; }
uint64_t BlockSizeOf(const void* p) { return static_cast<const uint64_t*>(p)[-1]; }
char* At(void* p) { return static_cast<char*>(p); }

// Free blocks and free bytes, or {~0, ~0} without reuse.
Pair FreeCount(Strategy& strategy) {
    unsigned long bytes = ~0UL, overhead = ~0UL, blocks = ~0UL;
    if (strategy.GetFreeInfo(bytes, overhead, blocks)) {
        EXPECT_EQ(overhead, 8 * blocks);
    }
    return {blocks, bytes};
}

std::string FreeFailure(Strategy& strategy, void* p) {
    try {
        strategy.Free(p);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "<no exception>";
}

}  // namespace

// One large arena, so that every block handed out is predicted exactly by the
// free list, newest first: first fit, the tail cut off while 16 bytes remain,
// otherwise the whole block; else the bump pointer advances.
TEST(VirtualArena, HandsOutExactlyWhatTheFreeListModelPredicts) {
    Strategy strategy(nullptr, 4UL << 20, true, nullptr);
    std::vector<std::pair<uintptr_t, uint64_t>> freeList;
    uintptr_t next = 0;
    auto predict = [&](unsigned long blockSize) -> uintptr_t {
        for (auto it = freeList.begin(); it != freeList.end(); ++it) {
            if (it->second < blockSize) continue;
            if (it->second - blockSize >= 16) return it->first + (it->second -= blockSize);
            const uintptr_t whole = it->first;
            freeList.erase(it);
            return whole;
        }
        return (next += blockSize) - blockSize;
    };
    std::mt19937_64 rng(1234);
    auto roll = [&](unsigned long bound) { return std::uniform_int_distribution<unsigned long>(0, bound - 1)(rng); };
    std::vector<char*> live;
    for (int op = 0; op < 4000; ++op) {
        if (live.empty() || roll(100) < 55) {
            // Mostly small sizes, now and then a few pages.
            const unsigned long size = roll(20) == 0 ? roll(3 * kPage) : roll(300);
            char* p = At(strategy.Alloc(size));
            if (next == 0) next = BlockOf(p);  // the arena's start
            ASSERT_EQ(BlockOf(p), predict((std::max(size, 8UL) + 7) / 8 * 8 + 8)) << "size " << size;
            live.push_back(p);
        } else {
            const size_t index = roll(live.size());
            char* p = live[index];
            live[index] = live.back();
            live.pop_back();
            freeList.insert(freeList.begin(), {BlockOf(p), BlockSizeOf(p)});
            strategy.Free(p);
        }
    }
    unsigned long modelBytes = 0;
    for (const auto& block : freeList) modelBytes += block.second - 8;
    EXPECT_EQ(FreeCount(strategy), Pair(freeList.size(), modelBytes));
}

// The first block starts the arena, mapped at the caller's hint: the bottom
// of a hole twice its size, where the system would not put it by itself.
// Pages are committed whole as the bump pointer reaches them.
TEST(VirtualArena, FirstArenaIsMappedAtTheHintAndPagesAreCommittedWhole) {
    void* hole = mmap(nullptr, 8 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    ASSERT_EQ(munmap(hole, 8 * kPage), 0);
    Strategy strategy(hole, 4 * kPage - 100, false, nullptr);  // rounds up to 4 pages
    EXPECT_EQ(strategy.GetCommittedMemory(), 0u);
    EXPECT_EQ(BlockOf(strategy.Alloc(0)), reinterpret_cast<uintptr_t>(hole));  // a block of 16 bytes
    EXPECT_EQ(strategy.GetCommittedMemory(), kPage);
    EXPECT_EQ(strategy.GetAvailableMemory(), 3 * kPage);  // above the committed mark
    ASSERT_NE(strategy.Alloc(kPage - 24), nullptr);       // ends exactly on the first page
    EXPECT_EQ(strategy.GetCommittedMemory(), kPage);
    ASSERT_NE(strategy.Alloc(kPage + 8), nullptr);  // a page and 16 bytes: two more pages
    EXPECT_EQ(strategy.GetCommittedMemory(), 3 * kPage);
    EXPECT_EQ(strategy.GetAvailableMemory(), kPage);
}

// Without reuse Free ignores every pointer and keeps no free list; with reuse
// a pointer that no arena holds throws.
TEST(VirtualArena, FreeOfAPointerNoArenaHoldsThrowsInvalidArgumentWithReuse) {
    int local = 0;
    for (bool reuse : {false, true}) {
        Strategy strategy(nullptr, 4 * kPage, reuse, nullptr);
        char* p = At(strategy.Alloc(8));
        // Not mapped; mapped but above the bump pointer; a block starting
        // below the arena; misaligned; null.
        for (void* wrong : {static_cast<void*>(&local), static_cast<void*>(p + 64), static_cast<void*>(p - 8),
                            static_cast<void*>(p + 3), static_cast<void*>(nullptr)})
            EXPECT_EQ(FreeFailure(strategy, wrong), reuse ? g_szMeBlockNotInArena : "<no exception>") << wrong;
        strategy.Free(p);
        EXPECT_EQ(strategy.Alloc(8), reuse ? p : p + 16);
        EXPECT_EQ(FreeCount(strategy), reuse ? Pair(0, 0) : Pair(~0UL, ~0UL));  // without: outputs untouched
    }

    // The memory object passes it on and does not count the free.
    utlAutoIf<COM_IMemory, &COM_IID_IMemory> memory;
    ASSERT_EQ(CMemory::CreateInstance(COM_IID_IMemory, memory.OutVoid()), S_OK);
    ASSERT_EQ(memory->SetStrategy(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, kPage), S_OK);
    EXPECT_THROW(memory->Free(&local), std::invalid_argument);
    unsigned long allocs, frees = 1, committed, available;
    ASSERT_EQ(memory->GetUsageInfo(&allocs, &frees, &committed, &available), S_OK);
    EXPECT_EQ(frees, 0u);
}

TEST(VirtualArena, RequestBiggerThanAnArenaMapsANewArenaOnEveryAttemptAndFails) {
    Strategy strategy(nullptr, kPage, false, nullptr);
    EXPECT_EQ(strategy.Alloc(kPage - 7), nullptr);  // a block of a page and 8 bytes
    EXPECT_EQ(strategy.Alloc(kPage), nullptr);
    EXPECT_EQ(strategy.Arenas().size(), 3u);
    EXPECT_EQ(strategy.GetAvailableMemory(), 3 * kPage);
    EXPECT_NE(strategy.Alloc(kPage - 8), nullptr);  // a block of exactly one page fits
    EXPECT_EQ(strategy.Arenas().size(), 3u);
    // Sizes whose block size would wrap never become small blocks.
    for (unsigned long size : {~0UL, ~0UL - 7, ~0UL - 8, ~0UL - 15, ~0UL - 16, ~0UL - 23, 1UL << 63})
        EXPECT_EQ(strategy.Alloc(size), nullptr) << std::hex << size;
    EXPECT_EQ(strategy.GetCommittedMemory(), kPage);
}

TEST(VirtualArena, FailingArenasRotateToTheBackAndANewArenaGoesToTheFront) {
    Strategy strategy(nullptr, kPage, true, nullptr);
    CVirtualArena* first = strategy.Arenas().front();
    char* a = At(strategy.Alloc(kPage - 8));        // fills the first arena
    ASSERT_NE(strategy.Alloc(kPage - 8), nullptr);  // so a second is mapped
    CVirtualArena* second = strategy.Arenas().front();

    strategy.Free(a);  // the arena at the back serves from its free list and comes to the front
    EXPECT_EQ(strategy.Alloc(kPage - 8), a);
    EXPECT_EQ(strategy.Arenas().front(), first);

    ASSERT_NE(strategy.Alloc(8), nullptr);  // all fail: order kept, a third in front
    ASSERT_EQ(strategy.Arenas().size(), 3u);
    EXPECT_EQ(strategy.Arenas()[1], first);
    EXPECT_EQ(strategy.Arenas()[2], second);
}

TEST(VirtualArena, DiagnosticTextsAreExportedExactlyAsWritten) {
    const std::pair<const wchar_t*, const wchar_t*> texts[] = {
        {g_wszMeArenaCreating, L"CVirtualArena: creating arena of size 0x"},
        {g_wszMeArenaReserved, L"CVirtualArena: reserved address 0x"},
        {g_wszMeArenaDecommitting, L"CVirtualArena: destructor decommitting 0x"},
        {g_wszMeArenaFreeing, L"CVirtualArena: destructor freeing 0x"},
        {g_wszMeAllocInArenaFailed,
         L"CVirtualAllocationStrategy::AllocInArena failed (out of memory in this arena) - will "
         L"retry in next arena\r\n"},
        {g_wszMeCommitFailed,
         L"CVirtualArena::Alloc failed (unable to commit memory in this arena) - will retry in "
         L"next arena\r\n"},
        {g_wszMeNewArenaFailed,
         L"CVirtualAllocationStrategy:Alloc Failed to create a new arena - EFFECTIVELY OUT OF "
         L"VIRTUAL MEMORY"},
        {g_wszMeNewArenaAllocFailed,
         L"CVirtualAllocationStrategy::Alloc Failed to allocate memory in new arena - OUT OF MEMORY "
         L"*OR* MEMORY REQUEST EXCEEDS ARENA SIZE"},
        {g_wszMeBlockNotInArena, L"CVirtualAllocationStrategy::FindArenaOfBlock: Block is not in any arena"},
    };
    for (const auto& text : texts) EXPECT_STREQ(text.first, text.second);
    EXPECT_STREQ(g_szMeBlockNotInArena, "CVirtualAllocationStrategy::FindArenaOfBlock: Block is not in any arena");
}
