// Cost of accounted memory and of pool elements beside the C library's allocator, in one run.
#include <benchmark/benchmark.h>
#include <ka/mem.h>
#include <ka/msg.h>

#include <cstdlib>
#include <cstring>

namespace {

using benchmark::DoNotOptimize;

std::size_t size_of(const benchmark::State& state) { return std::size_t(state.range(0)); }

void BM_malloc(benchmark::State& state) {
  for (auto _ : state) {
    void* memory = std::malloc(size_of(state));
    DoNotOptimize(memory);
    std::free(memory);
  }
}

void BM_malloc_zeroed(benchmark::State& state) {
  for (auto _ : state) {
    void* memory = std::malloc(size_of(state));
    DoNotOptimize(memory);
    std::memset(memory, 0, size_of(state));
    DoNotOptimize(memory);
    std::free(memory);
  }
}

void BM_calloc(benchmark::State& state) {
  for (auto _ : state) {
    void* memory = std::calloc(1, size_of(state));
    DoNotOptimize(memory);
    std::free(memory);
  }
}

void BM_accounted(benchmark::State& state) {
  for (auto _ : state) {
    void* memory = ka_mem_doalloc(__FILE__, __LINE__, KA_MAIN, size_of(state), 0);
    DoNotOptimize(memory);
    ka_mem_dorelease(__FILE__, __LINE__, KA_MAIN, memory);
  }
}

void BM_accounted_zeroed(benchmark::State& state) {
  for (auto _ : state) {
    void* memory = ka_mem_allocate(size_of(state));
    DoNotOptimize(memory);
    ka_mem_release(memory);
  }
}

void BM_pool(benchmark::State& state) {
  ka_mem_pool* const pool = ka_mem_blkcreate(size_of(state));
  for (auto _ : state) {
    void* element = ka_mem_blkfallocate(pool);
    DoNotOptimize(element);
    ka_mem_blkfrelease(pool, element);
  }
  ka_mem_blkdelete(pool);
}

void BM_pool_locked(benchmark::State& state) {
  ka_mem_pool* const pool = ka_mem_blkcreate(size_of(state));
  for (auto _ : state) {
    void* element = ka_mem_blkallocate(pool);
    DoNotOptimize(element);
    ka_mem_blkrelease(pool, element);
  }
  ka_mem_blkdelete(pool);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : {16, 64, 256, 1024, 1032, 1040, 4096}) benchmark->Arg(size);
}
void pool_sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : {16, 64, 256}) benchmark->Arg(size);
}

BENCHMARK(BM_malloc)->Apply(sizes);
BENCHMARK(BM_accounted)->Apply(sizes);
BENCHMARK(BM_malloc_zeroed)->Apply(sizes);
BENCHMARK(BM_calloc)->Apply(sizes);
BENCHMARK(BM_accounted_zeroed)->Apply(sizes);
BENCHMARK(BM_pool)->Apply(pool_sizes);
BENCHMARK(BM_pool_locked)->Apply(pool_sizes);

}  // namespace

int main(int argc, char** argv) {
  ka_lumoralib_attach_process();
  ka_mem_init();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
