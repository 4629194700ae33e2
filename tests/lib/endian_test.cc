// Byte order: formats of records, and arrays of every length and alignment.
#include <gtest/gtest.h>
#include <ka/endian.h>

#include <algorithm>
#include <numeric>
#include <string>

namespace {

TEST(Swap, AFormatReversesTheFieldsOfARecordInPlace) {
  const struct {
    const char *format, *bytes, *swapped;
  } rows[] = {{"2s", "123456", "214365"},  // a count stands for fields more
              {"0s", "1234", "2134"},
              {"if", "12345678", "43218765"},
              {"d", "12345678", "87654321"},
              {"cs3cs", "c12cccc34", "c21cccc43"},
              {"10cs", "0123456789a12", "0123456789a21"},
              {"s x-s\n", "1234", "2143"},
              {"", "12", "12"}};
  for (const auto& [format, bytes, swapped] : rows) {
    std::string record = bytes + std::string("after");
    EXPECT_EQ(ka_swap(record.data(), format), 0);
    EXPECT_EQ(record, swapped + std::string("after")) << format;
  }
  std::string pointer = "1234567812";
  ka_swap(pointer.data(), "ps");
  EXPECT_EQ(pointer, std::string(8, '\0') + "21");
}

// Lengths below, at and beyond what one vector holds, at addresses that are aligned and not.
TEST(Swap, ArraysOfEveryLengthAreReversedAndNothingElse) {
  const std::pair<void (*)(void*, std::ptrdiff_t), std::ptrdiff_t> arrays[] = {
      {ka_swap_shorts, 2}, {ka_swap_ints, 4}, {ka_swap_doubles, 8}};
  for (const auto& [swap, size] : arrays) {
    for (std::ptrdiff_t n = -1; n <= 200; ++n) {
      const std::ptrdiff_t start = (n + 1) % 4, bytes = std::max<std::ptrdiff_t>(n, 0) * size;
      std::string array(std::size_t(start + bytes + 1), '\0');
      std::iota(array.begin(), array.end(), '\0');
      std::string expected = array;
      for (auto at = expected.begin() + start; at != expected.end() - 1; at += size) {
        std::reverse(at, at + size);
      }
      swap(array.data() + start, n);
      ASSERT_EQ(array, expected) << n << " elements of " << size << " bytes at " << start;
    }
  }
}

}  // namespace
