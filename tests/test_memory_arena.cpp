// Arenas and the arena strategy: block layout, the free list, the committed
// mark and the queue of arenas.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "memory/memoryInternal.h"

namespace {

typedef CVirtualAllocationStrategy Strategy;
typedef std::pair<unsigned long, unsigned long> Pair;
const unsigned long kPage = static_cast<unsigned long>(getpagesize());

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

bool IsMapped(const void* page) {
    unsigned char resident = 0;
    return mincore(const_cast<void*>(page), 1, &resident) == 0 || errno != ENOMEM;
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

TEST(VirtualArena, BlocksAreAtLeastSixteenBytesAndPagesAreCommittedWhole) {
    Strategy strategy(nullptr, 4 * kPage - 100, false, nullptr);  // rounds up to 4 pages
    EXPECT_EQ(strategy.GetCommittedMemory(), 0u);
    char* a = At(strategy.Alloc(0));
    char* b = At(strategy.Alloc(8));
    char* c = At(strategy.Alloc(9));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % kPage, 8u);  // the first block starts the arena
    EXPECT_EQ(BlockSizeOf(a) + BlockSizeOf(b) + BlockSizeOf(c), 16u + 16u + 24u);
    EXPECT_EQ(b, a + 16);
    EXPECT_EQ(c, b + 16);
    EXPECT_EQ(strategy.GetCommittedMemory(), kPage);
    EXPECT_EQ(strategy.GetAvailableMemory(), 3 * kPage);  // above the committed mark
    ASSERT_NE(strategy.Alloc(kPage - 64), nullptr);        // ends exactly on the first page
    EXPECT_EQ(strategy.GetCommittedMemory(), kPage);
    ASSERT_NE(strategy.Alloc(kPage + 8), nullptr);  // a page and 16 bytes: two more pages
    EXPECT_EQ(strategy.GetCommittedMemory(), 3 * kPage);
    EXPECT_EQ(strategy.GetAvailableMemory(), kPage);
}

TEST(VirtualArena, WithoutReuseFreeIgnoresEveryPointerAndKeepsNoFreeList) {
    Strategy strategy(nullptr, kPage, false, nullptr);
    char* p = At(strategy.Alloc(8));
    int local = 0;
    strategy.Free(p);
    strategy.Free(&local);
    EXPECT_EQ(strategy.Alloc(8), p + 16);
    EXPECT_EQ(FreeCount(strategy), Pair(~0UL, ~0UL));  // outputs untouched
}

TEST(VirtualArena, FreeOfAPointerNoArenaHoldsThrowsInvalidArgumentWithReuse) {
    Strategy strategy(nullptr, 4 * kPage, true, nullptr);
    char* p = At(strategy.Alloc(8));
    int local = 0;
    // Not mapped; mapped but above the bump pointer; a block starting below
    // the arena; misaligned; null.
    for (void* wrong : {static_cast<void*>(&local), static_cast<void*>(p + 64), static_cast<void*>(p - 8),
                        static_cast<void*>(p + 3), static_cast<void*>(nullptr)})
        EXPECT_EQ(FreeFailure(strategy, wrong), g_szMeBlockNotInArena) << wrong;
    EXPECT_EQ(FreeCount(strategy).first, 0u);

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
    char* a = At(strategy.Alloc(kPage - 8));  // fills the first arena
    char* b = At(strategy.Alloc(kPage - 8));  // so a second is mapped
    ASSERT_EQ(strategy.Arenas().size(), 2u);
    CVirtualArena* second = strategy.Arenas().front();
    EXPECT_EQ(strategy.FindArenaOfBlock(b - 8), second);

    strategy.Free(a);  // the arena at the back serves from its free list and comes to the front
    EXPECT_EQ(strategy.Alloc(kPage - 8), a);
    EXPECT_EQ(strategy.Arenas().front(), first);

    ASSERT_NE(strategy.Alloc(8), nullptr);  // all fail: order kept, a third in front
    ASSERT_EQ(strategy.Arenas().size(), 3u);
    EXPECT_EQ(strategy.Arenas()[1], first);
    EXPECT_EQ(strategy.Arenas()[2], second);
}

TEST(VirtualArena, ResetAndDestructionUnmapEveryArena) {
    auto* strategy = new Strategy(nullptr, kPage, true, nullptr);
    char* blocks[3];
    for (char*& block : blocks) block = At(strategy->Alloc(kPage - 8)) - 8;  // one arena each
    EXPECT_EQ(strategy->Reset(), S_OK);
    ASSERT_EQ(strategy->Arenas().size(), 1u);
    char* fresh = At(strategy->Alloc(8)) - 8;
    for (char* old : blocks) EXPECT_TRUE(old == fresh || !IsMapped(old));
    delete strategy;
    EXPECT_FALSE(IsMapped(fresh));
}

// Alloc and Free serve the arena in front without looking into the queue, so
// whatever changes the front must be seen by the next call.
TEST(VirtualArena, DestroyingTheCurrentArenaHandsItsPlaceToTheNextOne) {
    Strategy strategy(nullptr, kPage, true, nullptr);
    char* older = At(strategy.Alloc(kPage - 8));  // fills the first arena
    char* newer = At(strategy.Alloc(8));          // so a second is mapped in front
    ASSERT_EQ(strategy.Arenas().size(), 2u);

    strategy.DestroyCurrentArena();
    ASSERT_EQ(strategy.Arenas().size(), 1u);
    EXPECT_EQ(FreeFailure(strategy, newer), g_szMeBlockNotInArena);
    strategy.Free(older);                          // the survivor takes its block back
    EXPECT_EQ(strategy.Alloc(kPage - 8), older);  // and serves it first
    EXPECT_EQ(strategy.Arenas().size(), 1u);

    strategy.DestroyCurrentArena();
    EXPECT_EQ(FreeFailure(strategy, older), g_szMeBlockNotInArena);
    char* fresh = At(strategy.Alloc(8));  // no arena left: a new one is mapped
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(strategy.Arenas().front()->HoldsBlock(reinterpret_cast<uintptr_t>(fresh - 8)));
}

TEST(VirtualArena, FirstArenaIsMappedAtTheCallersAddressHint) {
    void* hole = mmap(nullptr, 4 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    ASSERT_EQ(munmap(hole, 4 * kPage), 0);
    Strategy strategy(hole, 4 * kPage, false, nullptr);
    EXPECT_EQ(At(strategy.Alloc(8)) - 8, hole);
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
