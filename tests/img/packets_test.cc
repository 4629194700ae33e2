// Packets of bytes and pixels with their encoders: the exact bytes, and decoders that stay between
// both ends.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "packet_rows.h"
#include "rle.h"

namespace test {
namespace {

using ka::RowEnd;

using Packets = std::span<const std::uint8_t>;
using RowBytes = std::span<std::uint8_t>;
struct Form {
  ka::PixelRow (*expand)(Packets, RowBytes, std::size_t pixel_bytes);
  std::size_t (*compact)(Packets row, RowBytes, std::size_t pixel_bytes);
  std::size_t (*bound)(std::size_t count, std::size_t pixel_bytes) = ka::compact_bound;
};
constexpr Form kBytes = {
    [](Packets packets, RowBytes row, std::size_t size) {
      return ka::expand_pixels(packets, row, size);
    },
    [](Packets row, RowBytes packets, std::size_t) { return ka::compact_bytes(row, packets); }};
// Into a row with room behind it.
constexpr Form kBytesWithSlack = {
    [](Packets packets, RowBytes row, std::size_t size) {
      Bytes room(row.size() + ka::kRowSlack + 1, 0x5a);
      std::ranges::copy(row, room.begin());
      const auto result =
          ka::expand_pixels(packets, std::span(room).first(row.size()), size, ka::kRowSlack);
      EXPECT_EQ(room.back(), 0x5a);
      std::copy_n(room.begin(), row.size(), row.begin());
      return result;
    },
    kBytes.compact};
constexpr Form kSigned = {
    [](Packets packets, RowBytes row, std::size_t) {
      return ka::PixelRow{ka::expand_signed(packets, row), packets.size()};
    },
    [](Packets row, RowBytes packets, std::size_t) { return ka::compact_signed(row, packets); }};
constexpr Form kMixed = {ka::expand_mixed, ka::compact_mixed};
constexpr Form kRuns = {ka::expand_repeats, nullptr};
constexpr Form kScanline = {
    [](Packets packets, RowBytes row, std::size_t) { return ka::expand_scanline(packets, row); },
    [](Packets row, RowBytes packets, std::size_t) { return ka::compact_scanline(row, packets); },
    [](std::size_t count, std::size_t) { return ka::scanline_bound(count); }};
constexpr Form kPackBits = {
    [](Packets packets, RowBytes row, std::size_t) {
      const auto [end, used, filled] = ka::expand_packbits(packets, row);
      return ka::PixelRow{end, used};
    },
    [](Packets row, RowBytes packets, std::size_t) { return ka::compact_packbits(row, packets); },
    [](std::size_t count, std::size_t) { return ka::packbits_bound(count); }};

constexpr Form kCounted = {
    [](Packets packets, RowBytes row, std::size_t) {
      return ka::PixelRow{ka::expand_counted<std::uint8_t>(packets, row), packets.size()};
    },
    [](Packets row, RowBytes packets, std::size_t) {
      return ka::compact_counted<std::uint8_t>(row, packets);
    },
    ka::counted_bound};
constexpr Form kWide = {
    [](Packets packets, RowBytes row, std::size_t) {
      auto* const words = reinterpret_cast<std::uint16_t*>(row.data());
      return ka::PixelRow{ka::expand_counted<std::uint16_t>(packets, {words, row.size() / 2}),
                          packets.size()};
    },
    [](Packets row, RowBytes packets, std::size_t) {
      const auto* const words = reinterpret_cast<const std::uint16_t*>(row.data());
      return ka::compact_counted<std::uint16_t>({words, row.size() / 2}, packets);
    },
    ka::counted_bound};

// With a guard behind the row; packets end with their last byte, so that a sanitizer sees the next.
RowEnd expand(const Form& form, Bytes packets, Bytes& row, std::size_t pixel_bytes) {
  packets.shrink_to_fit();
  row.push_back(0x5a);
  const auto [end, used] = form.expand(packets, std::span(row).first(row.size() - 1), pixel_bytes);
  EXPECT_EQ(row.back(), 0x5a);
  row.pop_back();
  EXPECT_TRUE(end != RowEnd::kWhole || used <= packets.size());
  return end == RowEnd::kWhole && used < packets.size() ? RowEnd::kCorrupt : end;
}

Bytes compact(const Form& form, const Bytes& row, std::size_t pixel_bytes) {
  Bytes packets(form.bound(row.size() / pixel_bytes, pixel_bytes));
  const std::size_t used = form.compact(row, packets, pixel_bytes);
  EXPECT_LE(used, packets.size());
  packets.resize(used);
  return packets;
}

// Bytes of which no two neighbours are equal.
Bytes alternating(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = std::uint8_t(i % 2 + 1);
  return bytes;
}

struct Encoded {
  Form form;
  std::size_t pixel_bytes;
  Bytes row, packets;
};
const std::vector<Encoded> kEncoded = {
    {kCounted, 1, {}, {0}},
    {kCounted, 1, {7, 8, 9}, {0x81, 7, 1, 8, 1, 9, 0}},
    {kCounted, 1, {7, 8, 8}, {0x81, 7, 2, 8, 0}},
    {kCounted, 1, {1, 1, 2, 2, 2, 4}, {0x82, 1, 1, 3, 2, 1, 4, 0}},
    {kCounted, 1, repeated(127, 5), {126, 5, 1, 5, 0}},
    {kCounted, 1, test::different(130),
     Bytes{254} + test::different(126) + Bytes{0x82, 63, 63, 2, 64, 0}},
    {kWide, 2, {7, 0, 8, 1, 8, 1}, {0, 0x81, 0, 7, 0, 2, 1, 8, 0, 0}},
    {kBytes, 1, {7, 7, 8}, {2, 7, 7, 8}},
    {kBytes, 1, {1, 7, 7, 7, 2, 2}, {0, 1, 0x82, 7, 1, 2, 2}},
    {kBytes, 1, repeated(130, 5) + Bytes{6}, {0xff, 5, 2, 5, 5, 6}},
    {kBytes, 1, test::different(129), Bytes{127} + test::different(128) + Bytes{0, 64}},
    {kSigned, 1, repeated(129, 5), {126, 5, 0xfe, 5, 5}},
    {kSigned, 1, test::different(128), Bytes{0x81} + test::different(127) + Bytes{0xff, 63}},
    {kMixed, 2, {1, 2, 1, 2, 1, 2, 1, 3}, {130, 1, 2, 0, 1, 3}},
    {kMixed, 1, repeated(129, 5), {128, 0, 129, 5}},
    {kMixed, 1, repeated(65536, 5), {128, 255, 255, 5, 0, 5}},
    {kMixed, 1, test::different(129), Bytes{127} + test::different(128) + Bytes{0, 64}},
    {kScanline, 1, {1, 2, 3, 3}, {2, 1, 2, 130, 3}},
    {kScanline, 1, {1, 1, 2, 2, 3, 4}, {130, 1, 130, 2, 2, 3, 4}},
    {kScanline, 1, repeated(128, 5), {255, 5, 1, 5}},
    {kScanline, 1, repeated(129, 5), {255, 5, 130, 5}},
    {kPackBits, 1, {7, 7}, {255, 7}},
    {kPackBits, 1, repeated(129, 7), {129, 7, 0, 7}},
    {kPackBits, 1, repeated(300, 7), {129, 7, 129, 7, 213, 7}},
    {kPackBits, 1, {1, 2, 2, 3, 3, 4}, {5, 1, 2, 2, 3, 3, 4}},
    {kPackBits, 1, {1, 2, 2}, {0, 1, 255, 2}},
    {kPackBits, 1, {1, 2, 2, 3, 3, 3}, {0, 1, 255, 2, 254, 3}},
    {kPackBits, 1, {1, 2, 2, 2, 3}, {0, 1, 254, 2, 0, 3}},
    {kPackBits, 1, {2, 2, 3, 3, 1}, {255, 2, 255, 3, 0, 1}},
    {kPackBits, 1, Bytes{1} + repeated(130, 2), {0, 1, 129, 2, 255, 2}},
    // A literal holds 128 bytes; a run of two joins it as long as there is room for both.
    {kPackBits, 1, alternating(129), Bytes{127} + alternating(128) + Bytes{0, 1}},
    {kPackBits, 1, alternating(126) + Bytes{9, 9, 1},
     Bytes{127} + alternating(126) + Bytes{9, 9, 0, 1}},
    {kPackBits, 1, alternating(127) + Bytes{9, 9, 1},
     Bytes{126} + alternating(127) + Bytes{255, 9, 0, 1}},
};

TEST(Packets, AreTheseBytes) {
  for (const auto& [form, pixel_bytes, row, packets] : kEncoded) {
    SCOPED_TRACE(testing::PrintToString(packets));
    EXPECT_EQ(compact(form, row, pixel_bytes), packets);
    Bytes read(row.size());
    EXPECT_EQ(expand(form, packets, read, pixel_bytes), RowEnd::kWhole);
    EXPECT_EQ(read, row);
  }
}

struct Damaged {
  Form form;
  std::size_t row_bytes, pixel_bytes;
  Bytes packets;
  RowEnd end;
};
const std::vector<Damaged> kDamaged = {
    {kSigned, 3, 1, {1, 7}, RowEnd::kShort},
    {kSigned, 3, 1, {3, 7}, RowEnd::kCorrupt},
    {kSigned, 2, 1, {1, 7, 0}, RowEnd::kCorrupt},
    {kMixed, 4, 2, {130, 1, 2}, RowEnd::kCorrupt},
    {kMixed, 299, 1, {128, 1, 44, 5}, RowEnd::kCorrupt},
    {kMixed, 300, 1, {128, 1}, RowEnd::kShort},
    {kMixed, 1, 1, {128, 0, 0, 5}, RowEnd::kCorrupt},
    {kRuns, 4, 2, {3, 1, 2}, RowEnd::kCorrupt},
    {kRuns, 4, 2, {0, 1, 2, 2, 1, 2}, RowEnd::kCorrupt},
    {kRuns, 4, 2, {2, 1}, RowEnd::kShort},
    {kRuns, 6, 2, {2, 1, 2, 1, 3, 4}, RowEnd::kWhole},
};

TEST(Packets, ThatAreDamagedAreTold) {
  for (const auto& [form, row_bytes, pixel_bytes, packets, end] : kDamaged) {
    SCOPED_TRACE(testing::PrintToString(packets));
    Bytes row(row_bytes);
    EXPECT_EQ(expand(form, packets, row, pixel_bytes), end);
  }
}

// Random rows come back whole; cut off, or in rows of another size, they do not.
TEST(Packets, RandomRowsComeBackOrAreRefused) {
  std::mt19937 random(9);
  const struct {
    Form form;
    std::size_t pixel_bytes;
  } rows[] = {{kBytes, 1},    {kSigned, 1},   {kMixed, 1},         {kMixed, 2},
              {kMixed, 3},    {kMixed, 4},    {kCounted, 1},       {kWide, 2},
              {kScanline, 1}, {kPackBits, 1}, {kBytesWithSlack, 1}};
  for (const auto& [form, pixel_bytes] : rows) {
    for (int i = 0; i < 1000; ++i) {
      Bytes row;
      for (const std::uint8_t value : test::random_line<std::uint8_t>(random)) {
        row = row + repeated(pixel_bytes, value);
      }
      const Bytes packets = compact(form, row, pixel_bytes);
      Bytes read(row.size()), part(row.size()), longer(row.size() + pixel_bytes);
      ASSERT_EQ(expand(form, packets, read, pixel_bytes), RowEnd::kWhole);
      ASSERT_EQ(read, row);
      ASSERT_NE(expand(form, packets, longer, pixel_bytes), RowEnd::kWhole);
      if (row.empty()) continue;
      const Bytes cut(packets.begin(), packets.begin() + long(random() % packets.size()));
      ASSERT_TRUE(expand(form, cut, part, pixel_bytes) == RowEnd::kShort || part == row);
      Bytes shorter(row.size() - pixel_bytes);
      ASSERT_EQ(expand(form, packets, shorter, pixel_bytes), RowEnd::kCorrupt);
    }
  }
}

}  // namespace
}  // namespace test
