// Long random sequences of allocations and frees for every strategy, checked
// against a simple model: live blocks never overlap, writing a block's whole
// requested size disturbs no other block, and the reported totals agree.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "memory/memoryInternal.h"

namespace {

using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;
const unsigned long kPage = static_cast<unsigned long>(getpagesize());

struct Block {
    char* p;
    unsigned long size;
    unsigned char fill;
    uintptr_t begin, end;  // where it lies; an empty range is not tracked
};

void ExpectIntact(const Block& block) {
    const auto differs = [&](char c) { return static_cast<unsigned char>(c) != block.fill; };
    EXPECT_EQ(std::find_if(block.p, block.p + block.size, differs), block.p + block.size)
        << "a " << block.size << "-byte block was overwritten";
}

// A few thousand calls, mostly small sizes, now and then a few pages. Each
// live block is filled with its own byte and checked before it goes back.
// `placed` checks each result and says which range to track; `freed` sees
// each block before it goes back. What is still live at the end is returned.
std::vector<Block> RunSequence(COM_IMemory* memory, unsigned seed,
                               std::function<std::pair<uintptr_t, uintptr_t>(unsigned long, char*)> placed,
                               std::function<void(char*)> freed = [](char*) {}) {
    std::mt19937_64 rng(seed);
    auto roll = [&](unsigned long bound) { return std::uniform_int_distribution<unsigned long>(0, bound - 1)(rng); };
    std::vector<Block> live;
    std::map<uintptr_t, uintptr_t> ends;
    unsigned long allocs = 0, frees = 0;
    for (int op = 0; op < 4000 && !testing::Test::HasFailure(); ++op) {
        if (live.empty() || roll(100) < 55) {
            const unsigned long size = roll(20) == 0 ? roll(3 * kPage) : roll(300);
            char* p = static_cast<char*>(memory->Alloc(size));
            const auto range = placed(size, p);
            allocs += p != nullptr;
            if (range.first == range.second) continue;
            const auto after = ends.lower_bound(range.first);
            EXPECT_TRUE(after == ends.end() || range.second <= after->first) << "overlaps the next block";
            EXPECT_TRUE(after == ends.begin() || std::prev(after)->second <= range.first) << "overlaps the previous";
            ends[range.first] = range.second;
            live.push_back(Block{p, size, static_cast<unsigned char>(op), range.first, range.second});
            std::memset(p, live.back().fill, size);
        } else {
            const size_t index = roll(live.size());
            const Block block = live[index];
            ExpectIntact(block);
            live[index] = live.back();
            live.pop_back();
            ends.erase(block.begin);
            freed(block.p);
            memory->Free(block.p);
            ++frees;
        }
        if (op % 250 == 0) std::for_each(live.begin(), live.end(), ExpectIntact);
    }
    std::for_each(live.begin(), live.end(), ExpectIntact);
    unsigned long a = 0, f = 0, committed, available;
    EXPECT_EQ(memory->GetUsageInfo(&a, &f, &committed, &available), S_OK);
    EXPECT_EQ(a, allocs);
    EXPECT_EQ(f, frees);
    return live;
}

MemoryPtr MemoryWith(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size) {
    MemoryPtr memory;
    EXPECT_EQ(CMemory::CreateInstance(COM_IID_IMemory, memory.OutVoid()), S_OK);
    EXPECT_EQ(memory->SetStrategy(strategy, buffer, size), S_OK);
    return memory;
}

CVirtualAllocationStrategy& ArenasOf(COM_IMemory* memory) {
    return dynamic_cast<CVirtualAllocationStrategy&>(*static_cast<CMemory*>(memory)->Strategy());
}

uintptr_t BlockOf(const char* p) { return reinterpret_cast<uintptr_t>(p) - 8; }
uint64_t HeaderOf(const char* p) { return reinterpret_cast<const uint64_t*>(p)[-1]; }
unsigned long BlockSizeFor(unsigned long size) { return (std::max(size, 8UL) + 7) / 8 * 8 + 8; }

}  // namespace

// One large arena, so that every block handed out is predicted exactly by the
// free list, newest first: first fit, the tail cut off while 16 bytes remain,
// otherwise the whole block; else the bump pointer advances.
TEST(RandomSequence, ArenaHandsOutExactlyWhatTheFreeListModelPredicts) {
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, 4UL << 20);
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
    RunSequence(
        memory, 1234,
        [&](unsigned long size, char* p) {
            EXPECT_NE(p, nullptr);
            if (!p) return std::make_pair(uintptr_t(0), uintptr_t(0));
            if (next == 0) next = BlockOf(p);  // the arena's start
            EXPECT_EQ(BlockOf(p), predict(BlockSizeFor(size))) << "size " << size;
            return std::make_pair(BlockOf(p), BlockOf(p) + HeaderOf(p));
        },
        [&](char* p) { freeList.insert(freeList.begin(), {BlockOf(p), HeaderOf(p)}); });
    EXPECT_EQ(ArenasOf(memory).Arenas().size(), 1u);
    unsigned long bytes = 0, overhead = 0, blocks = 0, modelBytes = 0;
    ASSERT_EQ(memory->GetFreeInfo(&bytes, &overhead, &blocks), S_OK);
    for (const auto& block : freeList) modelBytes += block.second - 8;
    EXPECT_EQ(blocks, freeList.size());
    EXPECT_EQ(bytes, modelBytes);
    EXPECT_EQ(overhead, 8 * freeList.size());
}

// Arenas of two pages: larger requests fail, arenas fill and rotate, and freed
// blocks come back in whichever arena holds them.
TEST(RandomSequence, SmallArenasKeepBlocksApartAlignedAndInsideOneArena) {
    const unsigned long arenaSize = 2 * kPage;
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, arenaSize);
    CVirtualAllocationStrategy& strategy = ArenasOf(memory);
    RunSequence(memory, 99, [&](unsigned long size, char* p) {
        EXPECT_EQ(p == nullptr, BlockSizeFor(size) > arenaSize) << "size " << size;
        if (!p) return std::make_pair(uintptr_t(0), uintptr_t(0));
        const auto range = std::make_pair(BlockOf(p), BlockOf(p) + HeaderOf(p));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
        const auto holds = [&](const CVirtualArena* arena) { return arena->HoldsBlock(range.first); };
        const auto arena = std::find_if(strategy.Arenas().begin(), strategy.Arenas().end(), holds);
        EXPECT_TRUE(arena != strategy.Arenas().end() && (*arena)->HoldsBlock(range.second - 1));
        return range;
    });
    EXPECT_GT(strategy.Arenas().size(), 2u);
    unsigned long a, f, committed, available;
    ASSERT_EQ(memory->GetUsageInfo(&a, &f, &committed, &available), S_OK);
    EXPECT_EQ(committed + available, strategy.Arenas().size() * arenaSize);
}

TEST(RandomSequence, StandardHeapBlocksStayApart) {
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_STANDARD, nullptr, 0);
    for (const Block& block : RunSequence(memory, 7, [](unsigned long size, char* p) {
             EXPECT_TRUE(p || size == 0);  // malloc(0) may give null, or a unique pointer to free
             const uintptr_t at = reinterpret_cast<uintptr_t>(p);
             return p ? std::make_pair(at, at + std::max(size, 1UL)) : std::make_pair(at, at);
         }))
        memory->Free(block.p);
}

// The bump pointer is predicted exactly, and a request fails exactly when it
// does not fit what remains.
TEST(RandomSequence, LinearBufferIsHandedOutBackToBackUntilItRunsOut) {
    std::vector<char> buffer(256 * 1024);
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_LINEAR, buffer.data(), buffer.size());
    unsigned long used = 0, refused = 0;
    RunSequence(memory, 11, [&](unsigned long size, char* p) {
        const bool fits = size <= buffer.size() - used;
        EXPECT_EQ(p, fits ? buffer.data() + used : nullptr);
        refused += !fits;
        const uintptr_t at = reinterpret_cast<uintptr_t>(p);
        used += fits ? size : 0;
        return std::make_pair(at, fits ? at + size : at);  // an empty block shares its address: not tracked
    });
    EXPECT_GT(refused, 0u);
    unsigned long a, f, committed, available;
    ASSERT_EQ(memory->GetUsageInfo(&a, &f, &committed, &available), S_OK);
    EXPECT_EQ(available, buffer.size() - used);
}
