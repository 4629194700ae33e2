#include "ratios.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {
namespace {

constexpr int kRepetitions = 7;  // work and copy take turns; the best of each counts
constexpr char kCopySuffix[] = "/memcpy";

// Keeps the best rate of each benchmark and prints nothing but the table.
class RatioReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto rate = run.counters.find("bytes_per_second");
      if (run.run_type != Run::RT_Iteration || rate == run.counters.end()) continue;
      double& best = best_[run.run_name.function_name];
      best = std::max(best, rate->second.value);
    }
  }

  void Finalize() override {
    std::printf("%-40s %8s %8s %7s\n", "", "GB/s", "memcpy", "ratio");
    for (const auto& [name, rate] : best_) {
      const auto copy = best_.find(name + kCopySuffix);
      if (copy == best_.end()) continue;
      std::printf("%-40s %8.2f %8.2f %7.2f\n", name.c_str(), rate / 1e9, copy->second / 1e9,
                  rate / copy->second);
    }
  }

 private:
  std::map<std::string, double> best_;  // bytes per second by name
};

// Source and destination of every copy; made when the first copy runs, kept until the end.
struct CopyBuffers {
  std::vector<std::uint8_t> from, to;

  void hold(std::size_t bytes) {
    if (from.size() >= bytes) return;
    from.assign(bytes, 1);
    to.assign(bytes, 2);
  }
};

void copy(benchmark::State& state, std::size_t bytes, bool fresh) {
  static CopyBuffers buffers;
  buffers.hold(bytes);
  for (auto _ : state) {
    void* const memory = fresh ? std::malloc(bytes) : nullptr;
    void* const to = fresh ? memory : buffers.to.data();
    std::memcpy(to, buffers.from.data(), bytes);
    benchmark::DoNotOptimize(to);
    benchmark::ClobberMemory();
    std::free(memory);
  }
  state.SetBytesProcessed(state.iterations() * std::int64_t(bytes));
}

void configure(benchmark::internal::Benchmark* benchmark) {
  benchmark->Repetitions(kRepetitions)->MinTime(0.05);  // seconds of each repetition
}

template <typename Measure>
void add_beside_copy(const std::string& name, std::size_t bytes, const Measure& measure,
                     bool fresh) {
  configure(benchmark::RegisterBenchmark(name.c_str(), measure));
  configure(benchmark::RegisterBenchmark((name + kCopySuffix).c_str(), copy, bytes, fresh));
}

}  // namespace

void add(const std::string& name, std::size_t bytes, std::function<void()> work, bool fresh) {
  const auto measure = [bytes, work = std::move(work)](benchmark::State& state) {
    for (auto _ : state) work();
    state.SetBytesProcessed(state.iterations() * std::int64_t(bytes));
  };
  add_beside_copy(name, bytes, measure, fresh);
}

void add_prepared(const std::string& name, std::size_t bytes, std::function<void()> prepare,
                  std::function<void()> work) {
  const auto measure = [bytes, prepare = std::move(prepare),
                        work = std::move(work)](benchmark::State& state) {
    for (auto _ : state) {
      state.PauseTiming();
      prepare();
      state.ResumeTiming();
      work();
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t(bytes));
  };
  add_beside_copy(name, bytes, measure, false);
}

int run(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  char take_turns[] = "--benchmark_enable_random_interleaving=true";
  arguments.insert(arguments.begin() + 1, take_turns);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}

}  // namespace bench
