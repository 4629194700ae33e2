// Byte order: formats of records, and arrays of every length and alignment.
#include <gtest/gtest.h>
#include <ka/endian.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct FormatRow {
  const char* name;
  const char* format;
  Bytes bytes, swapped;
};

class SwapFormat : public testing::TestWithParam<FormatRow> {};

TEST_P(SwapFormat, ReversesTheFieldsInPlace) {
  const FormatRow& row = GetParam();
  Bytes bytes = row.bytes;
  bytes.push_back(0xee);  // behind the record
  EXPECT_EQ(ka_swap(bytes.data(), row.format), 0);
  Bytes expected = row.swapped;
  expected.push_back(0xee);
  EXPECT_EQ(bytes, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SwapFormat,
    testing::Values(
        FormatRow{"ACountStandsForFieldsMore", "2s", {1, 2, 3, 4, 5, 6}, {2, 1, 4, 3, 6, 5}},
        FormatRow{"PointersAreCleared",
                  "ps",
                  {1, 2, 3, 4, 5, 6, 7, 8, 9, 10},
                  {0, 0, 0, 0, 0, 0, 0, 0, 10, 9}},
        FormatRow{"IntsAndFloats", "if", {1, 2, 3, 4, 5, 6, 7, 8}, {4, 3, 2, 1, 8, 7, 6, 5}},
        FormatRow{"Doubles", "d", {1, 2, 3, 4, 5, 6, 7, 8}, {8, 7, 6, 5, 4, 3, 2, 1}},
        FormatRow{"BytesShiftTheFieldsBehindThem",
                  "cs3cs",
                  {9, 1, 2, 9, 9, 9, 9, 3, 4},
                  {9, 2, 1, 9, 9, 9, 9, 4, 3}},
        FormatRow{"OtherCharactersAreIgnored", "s x-s\n", {1, 2, 3, 4}, {2, 1, 4, 3}},
        FormatRow{"ZeroMoreIsOne", "0s", {1, 2, 3, 4}, {2, 1, 3, 4}},
        FormatRow{"CountsHaveSeveralDigits",
                  "10cs",
                  {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                  {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 11}},
        FormatRow{"AnEmptyFormatDoesNothing", "", {1, 2}, {1, 2}}),
    [](const auto& row) { return row.param.name; });

struct ArrayRow {
  const char* name;
  void (*swap)(void*, std::ptrdiff_t);
  std::size_t size;  // bytes of an element
};

class SwapArray : public testing::TestWithParam<ArrayRow> {};

// Lengths below, at and beyond what one vector holds, at addresses that are aligned and not.
TEST_P(SwapArray, ReversesEveryElementAndNothingElse) {
  const auto& [name, swap, size] = GetParam();
  for (std::size_t n = 0; n <= 200; ++n) {
    for (const std::size_t start : {0u, 1u, 3u}) {
      Bytes bytes(start + n * size + 1);
      std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
      Bytes expected = bytes;
      for (auto at = expected.begin() + std::ptrdiff_t(start); at != expected.end() - 1;) {
        std::reverse(at, at + std::ptrdiff_t(size));
        at += std::ptrdiff_t(size);
      }
      swap(bytes.data() + start, std::ptrdiff_t(n));
      ASSERT_EQ(bytes, expected) << n << " elements at " << start;
    }
  }
}

TEST_P(SwapArray, DoesNothingForNegativeCounts) {
  Bytes bytes = {1, 2, 3, 4, 5, 6, 7, 8};
  GetParam().swap(bytes.data(), -1);
  EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
}

INSTANTIATE_TEST_SUITE_P(Sizes, SwapArray,
                         testing::Values(ArrayRow{"Shorts", ka_swap_shorts, 2},
                                         ArrayRow{"Ints", ka_swap_ints, 4},
                                         ArrayRow{"Doubles", ka_swap_doubles, 8}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
