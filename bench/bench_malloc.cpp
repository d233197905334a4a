// The general allocator's malloc+free of a small block. Built once per
// allocator: linked against another allocator's library, the program's malloc
// is that allocator's, so every anchor runs the same code.
#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

void MallocFree(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}

}  // namespace

// The arena benchmarks ask for 8 bytes.
BENCHMARK(MallocFree)->Name(BENCH_ALLOCATOR "_malloc_free")->Arg(8);

BENCHMARK_MAIN();
