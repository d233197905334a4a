// Small things on the hot path, through the runtime's public interface, each
// beside its anchor: system strings against malloc+memcpy+free of the same
// bytes, the arena strategies against a bump pointer behind the very same
// calls (the memory object's linear strategy) and a bare bump pointer. The
// general allocators' figures come from bench_malloc_<allocator>.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <veltcom.h>

namespace {

using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;

const unsigned long kBlock = 8;
// Allocations between two rewinds of a bump region. Rewinding happens with
// the clock stopped, and the fresh region is touched first, so that page
// faults, which no allocator's code decides, stay out of every figure.
const int64_t kBatch = 1 << 15;
const unsigned long kRegion = kBatch * 32;

// ---- system strings ----------------------------------------------------------

void SysAllocFree(benchmark::State& state) {
    const unsigned long count = static_cast<unsigned long>(state.range(0));
    const std::wstring text(count, L'x');
    for (auto _ : state) {
        wchar_t* s = COM_SysAllocStringLen(text.data(), count);
        benchmark::DoNotOptimize(s);
        COM_SysFreeString(s);
    }
}

// The same block a system string takes: prefix, characters, terminator.
void MallocCopyFree(benchmark::State& state) {
    const unsigned long count = static_cast<unsigned long>(state.range(0));
    const std::wstring text(count, L'x');
    const size_t bytes = count * sizeof(wchar_t);
    for (auto _ : state) {
        char* block = static_cast<char*>(std::malloc(bytes + 12));
        benchmark::DoNotOptimize(block);
        std::memcpy(block + 8, text.data(), bytes);
        benchmark::ClobberMemory();
        std::free(block);
    }
}

// ---- the memory object -------------------------------------------------------

MemoryPtr MemoryWith(ALLOCATION_STRATEGY strategy, void* buffer, unsigned long size) {
    MemoryPtr memory;
    if (FAILED(memory.CreateInstance(COM_CLSID_Memory)) || FAILED(memory->SetStrategy(strategy, buffer, size))) {
        return MemoryPtr();
    }
    return memory;
}

// Rewinds the strategy and touches the region its next batch will use.
void Rewind(COM_IMemory* memory) {
    memory->Reset();
    char* first = static_cast<char*>(memory->Alloc(kBlock));
    std::memset(first, 0, kRegion - 64);
}

// With `release`, every block is freed at once, which the strategies without
// reuse ignore: the cost of the call alone.
void BumpThroughMemory(benchmark::State& state, COM_IMemory* memory, bool release = false) {
    int64_t left = 0;
    for (auto _ : state) {
        if (left-- == 0) {
            state.PauseTiming();
            Rewind(memory);
            left = kBatch - 1;
            state.ResumeTiming();
        }
        void* p = memory->Alloc(kBlock);
        benchmark::DoNotOptimize(p);
        if (release) memory->Free(p);
    }
}

void ArenaAlloc(benchmark::State& state) {
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_VIRTUAL, nullptr, kRegion);
    if (!memory) return state.SkipWithError("no memory object");
    BumpThroughMemory(state, memory);
}

void ArenaAllocFree(benchmark::State& state) {
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_VIRTUAL, nullptr, kRegion);
    if (!memory) return state.SkipWithError("no memory object");
    BumpThroughMemory(state, memory, true);
}

void LinearAlloc(benchmark::State& state) {
    std::vector<char> buffer(kRegion);
    MemoryPtr memory = MemoryWith(ALLOCATION_STRATEGY_LINEAR, buffer.data(), buffer.size());
    if (!memory) return state.SkipWithError("no memory object");
    BumpThroughMemory(state, memory);
}

void ReuseAllocFree(benchmark::State& state) {
    MemoryPtr owner = MemoryWith(ALLOCATION_STRATEGY_VIRTUAL_REUSE, nullptr, kRegion);
    if (!owner) return state.SkipWithError("no memory object");
    // Called through the bare interface, as the arena's anchor is: the smart
    // pointer's check on every call is no part of the figure.
    COM_IMemory* memory = owner;
    for (auto _ : state) {
        void* p = memory->Alloc(kBlock);
        benchmark::DoNotOptimize(p);
        memory->Free(p);
    }
}

void BareBump(benchmark::State& state) {
    std::vector<char> buffer(kRegion);
    char* next = buffer.data();
    int64_t left = kBatch;
    for (auto _ : state) {
        if (left-- == 0) {
            next = buffer.data();
            left = kBatch - 1;
        }
        char* p = next;
        next += 16;
        benchmark::DoNotOptimize(p);
    }
}

}  // namespace

BENCHMARK(SysAllocFree)->Name("sysstring_alloc_free")->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(MallocCopyFree)->Name("malloc_memcpy_free")->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(ArenaAlloc)->Name("arena_alloc");
BENCHMARK(ArenaAllocFree)->Name("arena_alloc_free");
BENCHMARK(LinearAlloc)->Name("bump_behind_memory_object");
BENCHMARK(ReuseAllocFree)->Name("arena_reuse_alloc_free");
BENCHMARK(BareBump)->Name("bare_bump");

BENCHMARK_MAIN();
