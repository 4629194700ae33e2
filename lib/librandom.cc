// Random numbers: one generator, three kinds of states.
#include <array>
#include <atomic>
#include <cmath>

#include <ka/detail/scope.h>
#include <ka/random.h>

#include "libcontext.h"

namespace {

constexpr std::uint64_t kMultiplier = 0x5deece66d, kIncrement = 0xb;
constexpr std::uint64_t kMask = (std::uint64_t{1} << 48) - 1;
constexpr std::uint64_t kStart = 0x5dee'ce6d'330e;
constexpr std::uint64_t kSeedLow = 0x330e;  // below the 32 bits of a seed
constexpr std::size_t kSeededStates = 8;
constexpr int kParallelState = 7;

// Read and written without a lock: what threads may do to each other is to draw the same number.
constinit std::atomic<std::uint64_t> global_state{kStart};

std::uint64_t advanced(std::uint64_t x) { return (kMultiplier * x + kIncrement) & kMask; }

// 48 bits fit a double, so that the number is rounded once.
float fraction(std::uint64_t x) { return float(double(x) * 0x1p-48); }

// The low 16 bits of the whole number that a value is cut to; 0 when there is none.
std::uint16_t low_word(double value) {
  if (!std::isfinite(value)) return 0;
  return std::uint16_t(std::int32_t(std::fmod(value, 65536.0)));
}

}  // namespace

float ka_random() {
  const ka::ModuleScope scope(KA_LIB);
  const std::uint64_t x = advanced(global_state.load(std::memory_order_relaxed));
  global_state.store(x, std::memory_order_relaxed);
  return fraction(x);
}

void ka_srandom(std::uint32_t seed) { global_state = std::uint64_t{seed} << 16 | kSeedLow; }

void ka_random_init() { global_state = kStart; }

float ka_erandom(std::uint16_t state[3]) {
  const ka::ModuleScope scope(KA_LIB);
  const std::uint64_t x =
      advanced(std::uint64_t{state[2]} << 32 | std::uint64_t{state[1]} << 16 | state[0]);
  state[0] = std::uint16_t(x);
  state[1] = std::uint16_t(x >> 16);
  state[2] = std::uint16_t(x >> 32);
  return fraction(x);
}

float ka_taskrandom(int index) {
  const ka::ModuleScope scope(KA_LIB);
  auto& states = ka::lib_context().random;
  return ka_erandom(states[unsigned(index) % states.size()].data());
}

void ka_taskrandom_seed(int width, int height, int /*unused*/, double x, double y) {
  const ka::ModuleScope scope(KA_LIB);
  auto& states = ka::lib_context().random;
  const double area = double(width) * height;
  for (std::size_t i = 0; i < kSeededStates; ++i) {
    const auto offset = double(i);
    states[i] = {low_word((std::cos(x) + x / width) * 13070 + offset),
                 low_word((std::sin(y) + y / height) * 43981 + offset),
                 low_word(x * y * 4660 / area + offset)};
  }
}

float ka_par_random() { return ka_taskrandom(kParallelState); }
