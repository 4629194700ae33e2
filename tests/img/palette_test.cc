// Indexes into tables of colors: every width, and indexes without a color.
#include "palette.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// Index i of a row, and the row with as many bits for each.
std::uint8_t index(std::size_t i, std::size_t bits) {
  return std::uint8_t((i * 37 + i / 8) & ((1U << bits) - 1));
}
Bytes packed_row(std::size_t count, std::size_t bits) {
  Bytes row((count * bits + 7) / 8);
  for (std::size_t i = 0; i < count; ++i) {
    row[i * bits / 8] |= std::uint8_t(index(i, bits) << (8 - bits - i * bits % 8));
  }
  return row;
}

TEST(Palette, LooksUpEveryIndex) {
  for (const std::size_t bits : {1UL, 4UL, 8UL}) {
    ka::Palette palette;
    for (std::size_t i = 0; i < std::size_t{1} << bits; ++i) {
      const auto level = std::uint8_t(i);
      palette.set(i, {level, std::uint8_t(level ^ 0x55), std::uint8_t(~level), 7});
    }
    for (const unsigned count :
         {1U, 2U, 7U, 8U, 9U, 255U, 256U, 257U, 1023U, 1024U, 1025U, 3000U}) {
      const Bytes row = packed_row(count, bits);
      Bytes r(count + 1, 0x5a), g = r, b = r, a = r;
      ASSERT_TRUE(palette.look_up(row.data(), bits, count,
                                  {r.data(), g.data(), b.data(), count % 2 ? a.data() : nullptr}));
      for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t level = index(i, bits);
        ASSERT_EQ(r[i], level) << bits << " bits, " << i << " of " << count;
        ASSERT_EQ(g[i], level ^ 0x55);
        ASSERT_EQ(b[i], std::uint8_t(~level));
        ASSERT_EQ(a[i], count % 2 ? 7 : 0x5a);
      }
      for (const Bytes* const plane : {&r, &g, &b, &a}) EXPECT_EQ(plane->back(), 0x5a);
    }
  }
}

// The loop of each instruction set, for every length up to eight vectors, which is two
// pieces of the plain one, and some.
TEST(Palette, KernelsAgree) {
  ka::ColorTable table;
  for (std::size_t i = 0; i < 256; ++i) {
    const auto level = std::uint8_t(i * 7);
    table.colors[i] = {level, std::uint8_t(~level), std::uint8_t(i), 9};
    for (std::size_t c = 0; c < 4; ++c) {
      table.planes[c][i] = reinterpret_cast<const std::uint8_t*>(&table.colors[i])[c];
    }
  }
  for (std::size_t count = 0; count <= 520; ++count) {
    Bytes row(count);
    for (std::size_t i = 0; i < count; ++i) row[i] = std::uint8_t(i * 83 + count);
    for (const auto kernel : ka::usable_kernels(ka::look_up_kernels)) {
      Bytes g(count + 1, 0x5a), a = g;
      kernel(table, row.data(), count, {nullptr, g.data(), nullptr, a.data()});
      for (std::size_t i = 0; i < count; ++i) {
        ASSERT_EQ(g[i], std::uint8_t(~(row[i] * 7))) << i << " of " << count;
        ASSERT_EQ(a[i], 9);
      }
      ASSERT_EQ(g[count], 0x5a);
      ASSERT_EQ(a[count], 0x5a);
    }
  }
}

}  // namespace
