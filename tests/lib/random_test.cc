// Random numbers: the sequence is that of the C library's rand48 family for the same state.
#include <gtest/gtest.h>
#include <ka/msg.h>
#include <ka/random.h>
#include <stdlib.h>

#include <array>
#include <limits>
#include <thread>
#include <vector>

namespace {

using State = std::array<std::uint16_t, 3>;

// The next number of a state, as the C library computes it.
float library_step(State& state) { return float(erand48(state.data())); }

TEST(Random, AStateOfTheCallersAdvancesAsErand48Does) {
  for (State ours : {State{0, 0, 0}, State{0x330e, 0xce6d, 0x5dee}, State{0xffff, 0xffff, 0xffff},
                     State{1, 0x8000, 0x7fff}}) {
    State library = ours;
    for (int i = 0; i < 1000; ++i) {
      ASSERT_EQ(ka_erandom(ours.data()), library_step(library)) << i;
      ASSERT_EQ(ours, library) << i;
    }
  }
}

TEST(Random, TheProcessBeginsWithAFixedStateAndRepeatsIt) {
  State state = {0x330e, 0xce6d, 0x5dee};
  ka_random_init();
  const float first = ka_random(), second = ka_random();
  EXPECT_EQ(first, library_step(state));
  EXPECT_EQ(second, library_step(state));
  ka_random_init();
  EXPECT_EQ(ka_random(), first);
}

TEST(Random, ASeedStartsTheSequenceOfSrand48) {
  for (const std::uint32_t seed : {0u, 1u, 0x12345678u, 0xffffffffu}) {
    ka_srandom(seed);
    srand48(long(std::int32_t(seed)));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(ka_random(), float(drand48())) << seed;
  }
}

// The state after x is 2^48 - 1 when 0x5deece66d * x is 2^48 - 12 modulo 2^48; Newton's iteration
// finds the inverse of the factor. (2^48 - 1) / 2^48 lies within 2^-25 of 1.
TEST(Random, NumbersNextToOneAreRoundedToOne) {
  constexpr std::uint64_t multiplier = 0x5deece66d;
  std::uint64_t inverse = multiplier;  // right in 3 bits; each step doubles them
  for (int i = 0; i < 5; ++i) inverse *= 2 - multiplier * inverse;
  const std::uint64_t x = inverse * ((std::uint64_t{1} << 48) - 12);
  State state = {std::uint16_t(x), std::uint16_t(x >> 16), std::uint16_t(x >> 32)};
  EXPECT_EQ(ka_erandom(state.data()), 1.0f);
  EXPECT_EQ(state, (State{0xffff, 0xffff, 0xffff}));
}

std::vector<float> draw(int index, std::size_t count) {
  std::vector<float> numbers(count);
  for (float& number : numbers) number = ka_taskrandom(index);
  return numbers;
}

std::vector<float> draw_from(State state, std::size_t count) {
  std::vector<float> numbers(count);
  for (float& number : numbers) number = library_step(state);
  return numbers;
}

struct SeedRow {
  const char* name;
  int width, height;
  double x, y;
  State words;  // of state 0
};

class TaskSeed : public testing::TestWithParam<SeedRow> {};

TEST_P(TaskSeed, StartsEightStates) {
  const SeedRow& row = GetParam();
  ka_taskrandom_seed(row.width, row.height, -1, row.x, row.y);
  for (int i = 0; i < 8; ++i) {
    State state = row.words;
    for (auto& word : state) word = std::uint16_t(word + i);
    EXPECT_EQ(draw(i, 3), draw_from(state, 3)) << i;
  }
}

// Words: (cos x + x / width) * 13070, (sin y + y / height) * 43981, x * y * 4660 / (width *
// height).
INSTANTIATE_TEST_SUITE_P(
    Rows, TaskSeed,
    testing::Values(
        // cos 0 = 1, sin 0 = 0
        SeedRow{"Origin", 100, 100, 0, 0, {13070, 0, 0}},
        // 0.5403023 + 0.01 = 0.5503023: 7192.45; 0.9092974 + 0.01 = 0.9192974: 40431.62; 0.466
        SeedRow{"CutTowardZero", 100, 200, 1, 2, {7192, 40431, 0}},
        // cos 3 + 0.03 = -0.9599925: -12547.1 is stored as 65536 - 12547;
        // sin 4 + 0.04 = -0.7168025: -31525.69 as 65536 - 31525; 12 * 0.466 = 5.59
        SeedRow{"NegativeNumbersWrap", 100, 100, 3, 4, {52989, 34011, 5}},
        // 10^6 * 13070 + 13070 * cos 10^6 (0.9367521) = 13070012243.3
        SeedRow{"LargeNumbersWrap", 1, 1, 1e6, 0, {std::uint16_t(13070012243 % 65536), 0, 0}}),
    [](const auto& row) { return row.param.name; });

TEST(TaskRandom, SeedsThatAreNoNumbersGiveZeros) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  const auto expected = draw_from({0, 0, 0}, 3);
  ka_taskrandom_seed(0, 0, 0, 0, 0);
  EXPECT_EQ(draw(3, 3), expected);
  ka_taskrandom_seed(1, 1, 0, infinity, -infinity);
  EXPECT_EQ(draw(3, 3), expected);
}

// 43981 * 2^80 is beyond every integer type; its low bits are 0, and an addition of i is lost.
TEST(TaskRandom, SeedsBeyondEveryIntegerAreTaken) {
  ka_taskrandom_seed(1, 1, 0, 0, 0x1p80);
  EXPECT_EQ(draw(0, 3), draw_from({13070, 0, 0}, 3));
  EXPECT_EQ(draw(5, 3), draw_from({13075, 0, 5}, 3));
}

TEST(TaskRandom, ThreadsHaveStatesOfTheirOwn) {
  ka_taskrandom_seed(10, 10, 0, 3, 4);
  const auto ours = draw(7, 4);
  std::vector<float> theirs, fresh;
  int number = -1;
  std::thread([&] {
    number = ka_msg_register_thread();
    fresh = draw(8, 4);
    ka_taskrandom_seed(10, 10, 0, 3, 4);
    theirs = draw(7, 4);
    ka_msg_unregister_thread();
  }).join();
  EXPECT_GT(number, 0);
  EXPECT_EQ(theirs, ours);
  EXPECT_EQ(fresh, draw_from({0, 0, 0}, 4));
}

TEST(TaskRandom, AnyNumberNamesAState) {
  ka_taskrandom_seed(10, 10, 0, 3, 4);
  const auto expected = draw(7, 4);
  ka_taskrandom_seed(10, 10, 0, 3, 4);
  const std::vector<float> mixed = {ka_taskrandom(7), ka_par_random(), ka_taskrandom(16),
                                    ka_taskrandom(9 * 113 + 7)};
  EXPECT_EQ(mixed, expected);
  const float number = ka_taskrandom(std::numeric_limits<int>::min());
  EXPECT_TRUE(number >= 0 && number <= 1);
}

}  // namespace
