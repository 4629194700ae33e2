// Cost of the texture cache: a page that is at hand beside a pointer read through a call, random
// pages of a texture of four times the budget beside pread of the same pages, two threads beside
// two processes; and of look-ups in its map beside those in a tree.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/rbtree.h>
#include <ka/trans.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "addressmap.h"
#include "texturecache.h"

namespace {

constexpr std::uint32_t kPage = 16384, kPages = 4096;  // a line each; the budget is 1024 pages
constexpr std::uint32_t kFirst = 120 + 16 * kPages;    // of the planes in the image
constexpr int kAccesses = 20000;                       // of one run of threads or processes

// A texture in a file that goes with the program.
class Texture {
 public:
  Texture() : path_(std::filesystem::temp_directory_path() / "cache_bench.map") {
    img_file file{};
    file.type = file.file_type = IMG_TYPE_S;
    if (!ka_img_create(&file, path_.c_str(), IMG_TYPE_S, IMG_FORMAT_MAP, kPage, kPages))
      std::abort();
    img_image* const image = ka_img_image_alloc(&file);
    if (!ka_img_image_write(&file, image) || !ka_img_close(&file)) std::abort();
    ka_img_image_release(image);
    file = {};
    if (!ka_img_open(&file, path_.c_str(), IMG_TYPE_FILE)) std::abort();
    const auto memory = [](void*, std::size_t bytes) { return ka_mem_allocate(bytes); };
    image_ = ka::img_cache_image_make(&file, memory, nullptr);
  }
  ~Texture() { std::filesystem::remove(path_); }
  Texture(const Texture&) = delete;
  Texture& operator=(const Texture&) = delete;

  [[nodiscard]] const img_image* image() const { return image_; }
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  img_image* image_;
};

const Texture* texture;

// Numbers that cost next to nothing.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 2 + 1) {}
  std::uint32_t below(std::uint32_t limit) {
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    return std::uint32_t((state_ >> 32) * limit >> 32);
  }

 private:
  std::uint64_t state_;
};

[[gnu::noinline]] const std::uint8_t* plain_address(const img_image* image, std::uint32_t offset) {
  return reinterpret_cast<const std::uint8_t*>(image) + offset;
}

void BM_plain_address(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes(2 * kPage);
  const auto* const image = reinterpret_cast<const img_image*>(bytes.data());
  std::uint32_t sum = 0;
  for (std::uint32_t i = 0; auto _ : state) {
    sum += *plain_address(image, i);
    i = (i + 1) % kPage;
  }
  benchmark::DoNotOptimize(sum);
}

std::uint32_t byte_at(std::uint32_t place) {
  return *static_cast<const std::uint8_t*>(ka_img_cache_get(texture->image(), kFirst + place));
}

void BM_recent_page(benchmark::State& state) {
  std::uint32_t sum = 0;
  for (std::uint32_t i = 0; auto _ : state) {
    sum += byte_at(i);
    i = (i + 1) % kPage;
  }
  benchmark::DoNotOptimize(sum);
}

// Pages that the thread holds, never the one it used last.
void BM_held_pages(benchmark::State& state) {
  std::uint32_t sum = 0;
  for (std::uint32_t i = 0; auto _ : state) {
    sum += byte_at(i % 200 * kPage);
    ++i;
  }
  benchmark::DoNotOptimize(sum);
}

void BM_random_pages(benchmark::State& state) {
  Random random(1);
  std::uint32_t sum = 0;
  for (auto _ : state) sum += byte_at(random.below(kPages) * kPage);
  benchmark::DoNotOptimize(sum);
}

void BM_pread_of_pages(benchmark::State& state) {
  const int file = open(texture->path().c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<std::uint8_t> page(kPage);
  Random random(1);
  std::uint32_t sum = 0;
  for (auto _ : state) {
    const auto offset = off_t(64 + kFirst) + off_t(random.below(kPages)) * kPage;
    if (pread(file, page.data(), kPage, offset) != ssize_t(kPage)) std::abort();
    sum += page[0];
  }
  benchmark::DoNotOptimize(sum);
  close(file);
}

void read_pages(std::uint64_t seed) {
  Random random(seed);
  std::uint32_t sum = 0;
  for (int i = 0; i < kAccesses; ++i) sum += byte_at(random.below(kPages) * kPage);
  benchmark::DoNotOptimize(sum);
}

// The same in a separate thread, which starts with nothing.
std::jthread reader(std::uint64_t seed) {
  return std::jthread([seed] {
    ka_msg_register_thread();
    read_pages(seed);
    ka_msg_unregister_thread();
  });
}

void BM_threads(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<std::jthread> threads;
    threads.reserve(std::size_t(state.range(0)));
    for (int i = 0; i < state.range(0); ++i) threads.push_back(reader(std::uint64_t(i)));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * kAccesses);
}

void BM_processes(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<pid_t> processes;
    for (int i = 0; i < state.range(0); ++i) {
      processes.push_back(fork());
      if (processes.back() == 0) {
        reader(std::uint64_t(i)).join();
        _exit(0);
      }
    }
    for (const pid_t process : processes) waitpid(process, nullptr, 0);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * kAccesses);
}

constexpr std::size_t kKeys = 1024;    // as many pages as the budget
const std::uint64_t keys[kKeys][2]{};  // as far apart as slots

void BM_tree_search(benchmark::State& state) {
  ka_rbtree* const tree = ka_rbtree_create(nullptr, KA_RB_UNIQUE);
  for (const auto& key : keys) ka_rbtree_insert(tree, reinterpret_cast<std::uintptr_t>(&key), 1);
  Random random(1);
  for (auto _ : state) {
    std::uintptr_t value;
    ka_rbtree_search(tree, reinterpret_cast<std::uintptr_t>(&keys[random.below(kKeys)]), &value);
    benchmark::DoNotOptimize(value);
  }
  ka_rbtree_delete(tree, 0);
}

void BM_map_find(benchmark::State& state) {
  ka::AddressMap<const std::uint64_t> map;
  for (const auto& key : keys) {
    map.make_room();
    map.insert(&key, key);
  }
  Random random(1);
  for (auto _ : state) benchmark::DoNotOptimize(map.find(&keys[random.below(kKeys)]));
}

BENCHMARK(BM_plain_address);
BENCHMARK(BM_recent_page);
BENCHMARK(BM_held_pages);
BENCHMARK(BM_pread_of_pages);
BENCHMARK(BM_random_pages);
BENCHMARK(BM_threads)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_processes)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_tree_search);
BENCHMARK(BM_map_find);

}  // namespace

int main(int argc, char** argv) {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_img_init();
  ka_trans_init();
  static const Texture held;
  texture = &held;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
