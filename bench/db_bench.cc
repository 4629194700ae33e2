// Cost of elements beside an accounted allocation and its release, in one run: each row is what a
// thousand operations take, in batches that are made and deleted again.
#include <benchmark/benchmark.h>
#include <ka/db.h>
#include <ka/job.h>
#include <ka/mem.h>
#include <ka/trans.h>

#include <array>
#include <chrono>

namespace {

constexpr std::size_t kBatch = 1000, kBytes = 64;
constexpr int kModule = 6, kType = 41;

using Tags = std::array<std::uint32_t, kBatch>;

int produce(int operation, ka_job_call* call) {
  if (operation != KA_JOB_EXECUTE) return 0;
  ka_db_realloc(call->tag, kBytes);
  return 1;
}

void create(Tags& tags) {
  for (std::uint32_t& tag : tags) benchmark::DoNotOptimize(ka_db_create(&tag, kType, kBytes));
}
void create_jobs(Tags& tags) {
  for (std::uint32_t& tag : tags) {
    tag = 0;
    ka_job_create(&tag, kType, kModule, nullptr, 0, nullptr);
  }
}
void access(Tags& tags) {
  for (const std::uint32_t tag : tags) benchmark::DoNotOptimize(ka_db_access(tag));
}
void pin_and_unpin(Tags& tags) {
  for (const std::uint32_t tag : tags) {
    benchmark::DoNotOptimize(ka_db_access(tag));
    ka_db_unpin(tag);
  }
}
void remove(Tags& tags) {
  for (const std::uint32_t tag : tags) ka_db_delete(tag);
}
void nothing(Tags&) {}

using Step = void (*)(Tags&);

// Times one step of a batch; the others come before and after it.
void measure(benchmark::State& state, Step before, Step step, Step after) {
  Tags tags{};
  for (auto _ : state) {
    before(tags);
    const auto start = std::chrono::steady_clock::now();
    step(tags);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(time.count());
    after(tags);
  }
}

// What an element's data cost by themselves, as many of them at a time.
void allocate_and_release(Tags&) {
  static std::array<void*, kBatch> blocks;
  for (void*& block : blocks) block = ka_mem_allocate(kBytes);
  benchmark::DoNotOptimize(blocks);
  for (void* const block : blocks) ka_mem_release(block);
}

void accessed_jobs(Tags& tags) {
  create_jobs(tags);
  pin_and_unpin(tags);
}

void BM_accounted(benchmark::State& s) { measure(s, nothing, allocate_and_release, nothing); }
void BM_create(benchmark::State& s) { measure(s, nothing, create, remove); }
void BM_access(benchmark::State& s) { measure(s, create, access, remove); }
void BM_delete(benchmark::State& s) { measure(s, create, remove, nothing); }
void BM_create_job(benchmark::State& s) { measure(s, nothing, create_jobs, remove); }
void BM_pin_and_unpin(benchmark::State& s) { measure(s, accessed_jobs, pin_and_unpin, remove); }
void BM_delete_job(benchmark::State& s) { measure(s, accessed_jobs, remove, nothing); }

BENCHMARK(BM_accounted)->UseManualTime();
BENCHMARK(BM_create)->UseManualTime();
BENCHMARK(BM_access)->UseManualTime();
BENCHMARK(BM_delete)->UseManualTime();
BENCHMARK(BM_create_job)->UseManualTime();
BENCHMARK(BM_pin_and_unpin)->UseManualTime();
BENCHMARK(BM_delete_job)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_db_init();
  ka_job_register(kModule, produce);
  ka_trans_init();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
