// Long random sequences of allocations and frees for every strategy, checked
// against a simple model: live blocks never overlap, writing a block's whole
// requested size disturbs no other block, and the reported totals agree.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "memory/memoryInternal.h"

namespace {

using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;
const unsigned long kPage = static_cast<unsigned long>(getpagesize());

// Where a block lies; an empty range is not tracked.
struct Range {
    uintptr_t begin = 0, end = 0;
};

struct Block {
    char* p;
    unsigned long size;
    unsigned char fill;
    Range range;
};

// Live blocks, each filled with its own byte, and the ranges they cover.
class LiveSet {
public:
    void Add(const Block& block) {
        auto after = m_ends.lower_bound(block.range.begin);
        if (after != m_ends.end()) {
            EXPECT_LE(block.range.end, after->first) << "overlaps the next live block";
        }
        if (after != m_ends.begin()) {
            EXPECT_LE(std::prev(after)->second, block.range.begin) << "overlaps the previous live block";
        }
        m_ends[block.range.begin] = block.range.end;
        std::memset(block.p, block.fill, block.size);
        m_blocks.push_back(block);
    }
    Block Take(unsigned long index) {
        Block block = m_blocks[index];
        ExpectIntact(block);
        m_blocks[index] = m_blocks.back();
        m_blocks.pop_back();
        m_ends.erase(block.range.begin);
        return block;
    }
    void ExpectAllIntact() const {
        for (const Block& block : m_blocks) ExpectIntact(block);
    }
    size_t Count() const { return m_blocks.size(); }
    const std::vector<Block>& Blocks() const { return m_blocks; }

private:
    static void ExpectIntact(const Block& block) {
        const char* wrong = std::find_if(block.p, block.p + block.size,
                                         [&](char c) { return static_cast<unsigned char>(c) != block.fill; });
        EXPECT_EQ(wrong, block.p + block.size) << "a " << block.size << "-byte block was overwritten";
    }

    std::vector<Block> m_blocks;
    std::map<uintptr_t, uintptr_t> m_ends;
};

// A few thousand calls, mostly small sizes, now and then a few pages.
// onAlloc checks each result and says which range to track; onFree sees
// each block before it goes back.
template <class OnAlloc, class OnFree>
LiveSet RunSequence(COM_IMemory* memory, unsigned seed, OnAlloc onAlloc, OnFree onFree) {
    std::mt19937_64 rng(seed);
    auto roll = [&](unsigned long bound) { return std::uniform_int_distribution<unsigned long>(0, bound - 1)(rng); };
    LiveSet live;
    unsigned long allocs = 0, frees = 0;
    for (int op = 0; op < 4000 && !testing::Test::HasFailure(); ++op) {
        if (live.Count() == 0 || roll(100) < 55) {
            const unsigned long size = roll(20) == 0 ? roll(3 * kPage) : roll(300);
            char* p = static_cast<char*>(memory->Alloc(size));
            const Range range = onAlloc(size, p);
            if (p) ++allocs;
            if (range.begin != range.end) live.Add(Block{p, size, static_cast<unsigned char>(op), range});
        } else {
            Block block = live.Take(roll(live.Count()));
            onFree(block.p);
            memory->Free(block.p);
            ++frees;
        }
        if (op % 250 == 0) live.ExpectAllIntact();
    }
    live.ExpectAllIntact();
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

// The free list, newest first: first fit, the tail cut off while 16 bytes
// remain, otherwise the whole block; else the bump pointer advances.
class FreeListModel {
public:
    uintptr_t Alloc(unsigned long blockSize, uintptr_t& next) {
        for (auto it = m_blocks.begin(); it != m_blocks.end(); ++it) {
            if (it->second < blockSize) continue;
            if (it->second - blockSize >= 16) return it->first + (it->second -= blockSize);
            const uintptr_t whole = it->first;
            m_blocks.erase(it);
            return whole;
        }
        next += blockSize;
        return next - blockSize;
    }
    void Free(uintptr_t block, uint64_t size) { m_blocks.insert(m_blocks.begin(), {block, size}); }
    void ExpectReported(COM_IMemory* memory) const {
        unsigned long bytes = 0, overhead = 0, blocks = 0, modelBytes = 0;
        ASSERT_EQ(memory->GetFreeInfo(&bytes, &overhead, &blocks), S_OK);
        for (const auto& block : m_blocks) modelBytes += block.second - 8;
        EXPECT_EQ(blocks, m_blocks.size());
        EXPECT_EQ(bytes, modelBytes);
        EXPECT_EQ(overhead, 8 * m_blocks.size());
    }

private:
    std::vector<std::pair<uintptr_t, uint64_t>> m_blocks;
};

// One large arena, so that every block handed out is predicted exactly.
void RunAgainstExactModel(bool reuse, unsigned seed) {
    MemoryPtr memory = MemoryWith(reuse ? ALLOCATION_STRATEGY_VIRTUAL_REUSE : ALLOCATION_STRATEGY_VIRTUAL, nullptr,
                                  4UL << 20);
    FreeListModel model;
    uintptr_t next = 0;
    RunSequence(
        memory, seed,
        [&](unsigned long size, char* p) {
            EXPECT_NE(p, nullptr);
            if (!p) return Range{};
            if (next == 0) next = BlockOf(p);  // the arena's start
            EXPECT_EQ(BlockOf(p), model.Alloc(BlockSizeFor(size), next)) << "size " << size;
            return Range{BlockOf(p), BlockOf(p) + HeaderOf(p)};
        },
        [&](char* p) {
            if (reuse) model.Free(BlockOf(p), HeaderOf(p));
        });
    EXPECT_EQ(ArenasOf(memory).Arenas().size(), 1u);
    if (reuse) model.ExpectReported(memory);
}

}  // namespace

TEST(RandomSequence, ArenaWithReuseHandsOutExactlyWhatTheFreeListModelPredicts) {
    RunAgainstExactModel(true, 1234);
}

TEST(RandomSequence, ArenaWithoutReuseOnlyEverBumps) {
    RunAgainstExactModel(false, 4321);
}

// Arenas of two pages: larger requests fail, arenas fill and rotate, and freed
// blocks come back in whichever arena holds them.
TEST(RandomSequence, SmallArenasKeepBlocksApartAlignedAndInsideOneArena) {
    const unsigned long arenaSize = 2 * kPage;
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, arenaSize);
    CVirtualAllocationStrategy& strategy = ArenasOf(memory);
    auto inOneArena = [&](const Range& range) {
        for (const CVirtualArena* arena : strategy.Arenas()) {
            if (arena->HoldsBlock(range.begin)) return arena->HoldsBlock(range.end - 1);
        }
        return false;
    };
    RunSequence(
        memory, 99,
        [&](unsigned long size, char* p) {
            EXPECT_EQ(p == nullptr, BlockSizeFor(size) > arenaSize) << "size " << size;
            if (!p) return Range{};
            const Range range{BlockOf(p), BlockOf(p) + HeaderOf(p)};
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
            EXPECT_TRUE(inOneArena(range));
            return range;
        },
        [](char*) {});
    EXPECT_GT(strategy.Arenas().size(), 2u);
    unsigned long a, f, committed, available;
    ASSERT_EQ(memory->GetUsageInfo(&a, &f, &committed, &available), S_OK);
    EXPECT_EQ(committed + available, strategy.Arenas().size() * arenaSize);
}

TEST(RandomSequence, StandardHeapBlocksStayApart) {
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_STANDARD, nullptr, 0);
    LiveSet live = RunSequence(
        memory, 7,
        [](unsigned long size, char* p) {
            EXPECT_TRUE(p || size == 0);  // malloc(0) may give null, or a unique pointer to free
            const uintptr_t at = reinterpret_cast<uintptr_t>(p);
            return p ? Range{at, at + std::max(size, 1UL)} : Range{};
        },
        [](char*) {});
    for (const Block& block : live.Blocks()) memory->Free(block.p);
}

// The bump pointer is predicted exactly, and a request fails exactly when it
// does not fit what remains.
TEST(RandomSequence, LinearBufferIsHandedOutBackToBackUntilItRunsOut) {
    std::vector<char> buffer(256 * 1024);
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_LINEAR, buffer.data(), buffer.size());
    unsigned long used = 0, refused = 0;
    RunSequence(
        memory, 11,
        [&](unsigned long size, char* p) {
            if (size > buffer.size() - used) {
                EXPECT_EQ(p, nullptr);
                ++refused;
                return Range{};
            }
            EXPECT_EQ(p, buffer.data() + used);
            used += size;
            const uintptr_t at = reinterpret_cast<uintptr_t>(p);
            return Range{at, at + size};  // an empty block shares its address: not tracked
        },
        [](char*) {});
    EXPECT_GT(refused, 0u);
    unsigned long a, f, committed, available;
    ASSERT_EQ(memory->GetUsageInfo(&a, &f, &committed, &available), S_OK);
    EXPECT_EQ(available, buffer.size() - used);
}
