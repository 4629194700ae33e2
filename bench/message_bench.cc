// Cost of a message whose level is switched off beside a call of a function that does nothing, in
// one run.
#include <benchmark/benchmark.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

namespace {

using benchmark::DoNotOptimize;

// The empty statement keeps the calls from being left out.
[[gnu::noinline]] void do_nothing(const char* /*format*/, ...) { asm volatile(""); }
[[gnu::noinline]] void do_nothing_numbered(int /*number*/, const char* /*format*/, ...) {
  asm volatile("");
}

void BM_empty(benchmark::State& state) {
  int value = 5;
  for (auto _ : state) {
    DoNotOptimize(value);
    do_nothing("value %d", value);
  }
}

void BM_suppressed(benchmark::State& state) {
  int value = 5;
  for (auto _ : state) {
    DoNotOptimize(value);
    ka_debug("value %d", value);
  }
}

void BM_empty_floats(benchmark::State& state) {
  double value = 5;
  for (auto _ : state) {
    DoNotOptimize(value);
    do_nothing_numbered(7, "values %g %g", value, value);
  }
}

void BM_suppressed_floats(benchmark::State& state) {
  double value = 5;
  for (auto _ : state) {
    DoNotOptimize(value);
    ka_nwarning(7, "values %g %g", value, value);
  }
}

BENCHMARK(BM_empty);
BENCHMARK(BM_suppressed);
BENCHMARK(BM_empty_floats);
BENCHMARK(BM_suppressed_floats);

}  // namespace

int main(int argc, char** argv) {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_FATAL | KA_ERROR);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
