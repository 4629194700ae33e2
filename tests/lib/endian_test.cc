// Byte order: formats of records, and arrays of every length and alignment.
#include <gtest/gtest.h>
#include <ka/endian.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(Swap, AFormatReversesTheFieldsOfARecordInPlace) {
  const struct {
    const char* format;
    Bytes bytes, swapped;
  } rows[] = {
      {"2s", {1, 2, 3, 4, 5, 6}, {2, 1, 4, 3, 6, 5}},  // a count stands for fields more
      {"0s", {1, 2, 3, 4}, {2, 1, 3, 4}},
      {"ps", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {0, 0, 0, 0, 0, 0, 0, 0, 10, 9}},
      {"if", {1, 2, 3, 4, 5, 6, 7, 8}, {4, 3, 2, 1, 8, 7, 6, 5}},
      {"d", {1, 2, 3, 4, 5, 6, 7, 8}, {8, 7, 6, 5, 4, 3, 2, 1}},
      {"cs3cs", {9, 1, 2, 9, 9, 9, 9, 3, 4}, {9, 2, 1, 9, 9, 9, 9, 4, 3}},
      {"10cs", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2}, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 1}},
      {"s x-s\n", {1, 2, 3, 4}, {2, 1, 4, 3}},
      {"", {1, 2}, {1, 2}}};
  for (const auto& [format, bytes, swapped] : rows) {
    Bytes record = bytes, expected = swapped;
    record.push_back(0xee);  // after the record
    expected.push_back(0xee);
    EXPECT_EQ(ka_swap(record.data(), format), 0);
    EXPECT_EQ(record, expected) << format;
  }
}

// Lengths below, at and beyond what one vector holds, at addresses that are aligned and not.
void expect_reversed(void (*swap)(void*, std::ptrdiff_t), std::ptrdiff_t size) {
  for (std::ptrdiff_t n = -1; n <= 200; ++n) {
    for (const std::ptrdiff_t start : {0, 1, 3}) {
      Bytes bytes(std::size_t(start + std::max<std::ptrdiff_t>(n, 0) * size + 1));
      std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
      Bytes expected = bytes;
      for (auto at = expected.begin() + start; at != expected.end() - 1; at += size) {
        std::reverse(at, at + size);
      }
      swap(bytes.data() + start, n);
      ASSERT_EQ(bytes, expected) << n << " elements of " << size << " bytes at " << start;
    }
  }
}

TEST(Swap, ArraysOfEveryLengthAreReversedAndNothingElse) {
  expect_reversed(ka_swap_shorts, 2);
  expect_reversed(ka_swap_ints, 4);
  expect_reversed(ka_swap_doubles, 8);
}

}  // namespace
