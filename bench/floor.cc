#include "floor.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <ka/detail/targets.h>

namespace least {
namespace {

constexpr int kTolerance = 3;
constexpr std::size_t kBlock = 64;  // pixels

KA_KERNEL void add_block(const std::uint8_t* __restrict a, const std::uint8_t* __restrict b,
                         std::size_t pixels, Sums& sums) {
  std::uint8_t counted[3 * kBlock];
  for (std::size_t i = 0; i < 3 * pixels; ++i) {
    const std::uint8_t more = a[i] > b[i] ? a[i] : b[i], less = a[i] > b[i] ? b[i] : a[i];
    const auto distance = std::uint8_t(more - less);
    counted[i] = std::uint8_t(distance > kTolerance ? distance : 0);
  }
  std::uint8_t planes[3][kBlock];
  for (std::size_t i = 0; i < pixels; ++i) {
    planes[0][i] = counted[3 * i];
    planes[1][i] = counted[3 * i + 1];
    planes[2][i] = counted[3 * i + 2];
  }
  std::uint16_t squares[3][kBlock];
  for (std::size_t c = 0; c < 3; ++c)
    for (std::size_t i = 0; i < pixels; ++i)
      squares[c][i] = std::uint16_t(planes[c][i] * planes[c][i]);
  std::int32_t count = 0, total = 0, most = 0;
  for (std::size_t i = 0; i < pixels; ++i) {
    const std::int32_t s = squares[0][i] + squares[1][i] + squares[2][i];
    count += s != 0;
    total += s;
    most = std::max(most, s);
  }
  sums.count += std::uint64_t(count);
  sums.total += std::uint64_t(total);
  sums.most = std::max(sums.most, most);
}

KA_KERNEL void measure_body(const std::uint8_t* a, const std::uint8_t* b, std::size_t pixels,
                            Sums& sums) {
  for (; pixels >= kBlock; pixels -= kBlock, a += 3 * kBlock, b += 3 * kBlock) {
    add_block(a, b, kBlock, sums);
  }
  add_block(a, b, pixels, sums);
}

constexpr auto& measure_kernels = ka::kernels_of<measure_body>;

}  // namespace

Measure measure() { return ka::best_kernel(measure_kernels); }

int print(const Sums& sums) {
  std::printf("%llu pixels, sum %llu, maximum %d\n", static_cast<unsigned long long>(sums.count),
              static_cast<unsigned long long>(sums.total), sums.most);
  return 0;
}

[[noreturn]] void fail(const char* name) {
  std::perror(name);
  std::exit(2);
}

std::span<const std::uint8_t> map_file(const char* name) {
  const int file = open(name, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (file < 0 || fstat(file, &status) != 0) fail(name);
  const auto size = std::size_t(status.st_size);
  void* const mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
  if (mapping == MAP_FAILED) fail(name);
  close(file);
  return {static_cast<const std::uint8_t*>(mapping), size};
}

}  // namespace least
