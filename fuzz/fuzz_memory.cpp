// The memory object's strategies under random sequences of allocation, free
// and reset: no live block overlaps another or loses its content, and the
// counts and sizes the object reports add up.
#include <unistd.h>

#include <cstring>
#include <map>
#include <vector>

#include "fuzzSupport.h"

namespace {

using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;

struct Block {
    size_t size;
    unsigned char fill;
};

class CRun {
public:
    CRun(COM_IMemory* memory, ALLOCATION_STRATEGY strategy, unsigned long bufferSize)
        : m_memory(memory), m_strategy(strategy), m_bufferSize(bufferSize) {}

    void Alloc(unsigned long size, unsigned char fill) {
        auto* p = static_cast<unsigned char*>(m_memory->Alloc(size));
        if (!p) return;
        ++m_allocs;
        m_used += size;
        if (m_strategy >= ALLOCATION_STRATEGY_VIRTUAL)
            FUZZ_CHECK(reinterpret_cast<uintptr_t>(p) % 8 == 0, "block %p not aligned", p);
        CheckNoOverlap(p, size);
        std::memset(p, fill, size);
        m_live[p] = {size, fill};
    }

    void Free(size_t pick) {
        if (m_live.empty()) return;
        auto it = m_live.begin();
        std::advance(it, pick % m_live.size());
        CheckContent(*it);
        m_memory->Free(it->first);
        ++m_frees;
        m_live.erase(it);
    }

    void Reset() {
        const HRESULT hr = m_memory->Reset();
        if (m_strategy == ALLOCATION_STRATEGY_STANDARD) {
            FUZZ_CHECK(hr == E_NOTIMPL, "standard reset gave 0x%08X", static_cast<unsigned>(hr));
            return;
        }
        FUZZ_CHECK(hr == S_OK, "reset gave 0x%08X", static_cast<unsigned>(hr));
        m_live.clear();
        m_allocs = m_frees = m_used = 0;
    }

    void CheckStatistics() const {
        unsigned long allocs, frees, committed, available;
        FUZZ_CHECK(m_memory->GetUsageInfo(&allocs, &frees, &committed, &available) == S_OK,
                   "no usage info");
        FUZZ_CHECK(allocs == m_allocs && frees == m_frees, "counts %lu/%lu, expected %lu/%lu",
                   allocs, frees, m_allocs, m_frees);
        unsigned long freeBytes = 0, overhead = 0, freeBlocks = 0;
        const HRESULT hr = m_memory->GetFreeInfo(&freeBytes, &overhead, &freeBlocks);
        switch (m_strategy) {
        case ALLOCATION_STRATEGY_STANDARD:
            FUZZ_CHECK(committed == ~0ul && available == ~0ul && hr == E_NOTIMPL, "standard sizes");
            break;
        case ALLOCATION_STRATEGY_LINEAR:
            FUZZ_CHECK(committed == m_bufferSize && available == m_bufferSize - m_used,
                       "linear sizes %lu/%lu for %lu used of %lu", committed, available, m_used,
                       m_bufferSize);
            FUZZ_CHECK(hr == S_OK && freeBytes == 0 && overhead == 0 && freeBlocks == 0,
                       "linear free info");
            break;
        case ALLOCATION_STRATEGY_VIRTUAL:
            FUZZ_CHECK(hr == E_NOTIMPL, "free info without reuse");
            break;
        default:
            // Every free block carries one 8-byte header and at least 8 bytes.
            FUZZ_CHECK(hr == S_OK && freeBlocks <= m_frees && overhead == 8 * freeBlocks &&
                           freeBytes >= 8 * freeBlocks,
                       "free info %lu/%lu/%lu after %lu frees", freeBytes, overhead, freeBlocks,
                       m_frees);
        }
        if (m_strategy >= ALLOCATION_STRATEGY_VIRTUAL) {
            const unsigned long page = getpagesize();
            FUZZ_CHECK(committed % page == 0 && (committed + available) % page == 0,
                       "arena sizes %lu/%lu not in pages", committed, available);
        }
    }

    // Standard blocks must go back to the heap before the strategy is replaced.
    void FreeAll() {
        while (!m_live.empty())
            Free(0);
    }

private:
    void CheckNoOverlap(unsigned char* p, size_t size) const {
        if (size == 0) return;
        auto next = m_live.lower_bound(p);
        if (next != m_live.end() && next->second.size)
            FUZZ_CHECK(p + size <= next->first, "block %p+%zu overlaps %p", p, size, next->first);
        if (next != m_live.begin()) {
            auto previous = std::prev(next);
            FUZZ_CHECK(previous->first + previous->second.size <= p, "block %p overlaps %p+%zu", p,
                       previous->first, previous->second.size);
        }
    }

    void CheckContent(const std::pair<unsigned char* const, Block>& block) const {
        for (size_t i = 0; i < block.second.size; ++i)
            FUZZ_CHECK(block.first[i] == block.second.fill, "block %p changed at %zu", block.first,
                       i);
    }

    COM_IMemory* m_memory;
    ALLOCATION_STRATEGY m_strategy;
    unsigned long m_bufferSize;
    std::map<unsigned char*, Block> m_live;
    unsigned long m_allocs = 0, m_frees = 0, m_used = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const auto strategy = static_cast<ALLOCATION_STRATEGY>(in.ConsumeIntegralInRange(1, 4));
    // Linear: the caller's buffer; virtual: the arena size, up to 16 pages.
    const unsigned long bufferSize = in.ConsumeIntegralInRange<unsigned long>(1, 16 * 4096);
    std::vector<unsigned char> buffer(strategy == ALLOCATION_STRATEGY_LINEAR ? bufferSize : 0);

    MemoryPtr memory;
    FUZZ_CHECK(memory.CreateInstance(COM_CLSID_Memory) == S_OK, "no memory object");
    FUZZ_CHECK(
        memory->SetStrategy(strategy, buffer.empty() ? nullptr : buffer.data(), bufferSize) == S_OK,
        "strategy %d not set", strategy);
    CRun run(memory, strategy, bufferSize);
    while (in.remaining_bytes() > 0) {
        const int op = in.ConsumeIntegralInRange(0, 9);
        if (op < 5)
            run.Alloc(in.ConsumeIntegralInRange<unsigned long>(0, op == 0 ? 3 * 4096 : 256),
                      in.ConsumeIntegral<unsigned char>());
        else if (op < 9)
            run.Free(in.ConsumeIntegral<uint16_t>());
        else
            run.Reset();
        run.CheckStatistics();
    }
    run.FreeAll();
    return 0;
}
