// Random numbers: the sequence is that of the C library's rand48 family for the same state.
#include <gtest/gtest.h>
#include <ka/random.h>
#include <stdlib.h>

#include <array>
#include <limits>
#include <vector>

#include "support.h"

namespace {

using State = std::array<std::uint16_t, 3>;
using Numbers = std::vector<float>;

Numbers draw(int index, std::size_t count) {
  Numbers numbers(count);
  for (float& number : numbers) number = ka_taskrandom(index);
  return numbers;
}

// As the C library computes them.
Numbers draw_from(State state, std::size_t count) {
  Numbers numbers(count);
  for (float& number : numbers) number = float(erand48(state.data()));
  return numbers;
}

TEST(Random, AdvancesAsErand48DoesFromFixedStatesAndSeeds) {
  for (const State start : {State{0, 0, 0}, State{0xffff, 0xffff, 0xffff}, State{1, 0x8000, 9}}) {
    State ours = start;
    for (const float number : draw_from(start, 1000)) ASSERT_EQ(ka_erandom(ours.data()), number);
  }
  ka_random_init();
  for (const float number : draw_from({0x330e, 0xce6d, 0x5dee}, 3)) EXPECT_EQ(ka_random(), number);
  for (const std::uint32_t seed : {0u, 0x12345678u, 0xffffffffu}) {
    ka_srandom(seed);
    srand48(long(std::int32_t(seed)));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(ka_random(), float(drand48())) << seed;
  }
}

// Words: (cos x + x / width) * 13070, (sin y + y / height) * 43981, x * y * 4660 / (width *
// height), each with the number of the state added.
TEST(TaskRandom, ASeedStartsEightStates) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  const struct {
    int width, height;
    double x, y;
    State words, step;
  } rows[] = {
      // 0.5403023 + 0.01 = 0.5503023: 7192.45; 0.9092974 + 0.01 = 0.9192974: 40431.62; 0.466
      {100, 200, 1, 2, {7192, 40431, 0}, {1, 1, 1}},
      // cos 3 + 0.03 = -0.9599925: -12547.1 is stored as 65536 - 12547;
      // sin 4 + 0.04 = -0.7168025: -31525.69 as 65536 - 31525; 12 * 0.466 = 5.59
      {100, 100, 3, 4, {52989, 34011, 5}, {1, 1, 1}},
      // 10^6 * 13070 + 13070 * cos 10^6 (0.9367521) = 13070012243.3
      {1, 1, 1e6, 0, {std::uint16_t(13070012243 % 65536), 0, 0}, {1, 1, 1}},
      // 43981 * 2^80 is beyond every integer type; its low bits are 0, and an addition is lost
      {1, 1, 0, 0x1p80, {13070, 0, 0}, {1, 0, 1}},
      // no numbers
      {0, 0, 0, 0, {0, 0, 0}, {0, 0, 0}},
      {1, 1, infinity, -infinity, {0, 0, 0}, {0, 0, 0}}};
  for (const auto& [width, height, x, y, words, step] : rows) {
    ka_taskrandom_seed(width, height, -1, x, y);
    State state = words;
    for (int i = 0; i < 8; ++i) {
      EXPECT_EQ(draw(i, 3), draw_from(state, 3)) << x << " " << y << " state " << i;
      for (std::size_t k = 0; k < 3; ++k) state[k] = std::uint16_t(state[k] + step[k]);
    }
  }
}

}  // namespace
