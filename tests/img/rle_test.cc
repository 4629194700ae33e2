// Run-length packets: decoders beside plain ones that take one step after the other.
#include "rle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "packet_rows.h"

namespace test {
namespace {

using ka::RowEnd;

// Pixel packets, decoded one byte after the other.
struct Decoded {
  RowEnd end;
  Bytes row;
  std::size_t used;
};
Decoded decode(const Bytes& packets, std::size_t row_bytes, std::size_t pixel_bytes) {
  Decoded result{RowEnd::kWhole, {}, 0};
  const auto next = [&] { return result.used < packets.size() ? int(packets[result.used++]) : -1; };
  while (result.row.size() < row_bytes) {
    const int control = next();
    if (control < 0) return {RowEnd::kShort, {}, 0};
    const std::size_t count = std::size_t(control) % 128 + 1;
    if (count * pixel_bytes > row_bytes - result.row.size()) return {RowEnd::kCorrupt, {}, 0};
    Bytes stored;
    for (std::size_t i = (control < 128 ? count : 1) * pixel_bytes; i > 0; --i) {
      const int byte = next();
      if (byte < 0) return {RowEnd::kShort, {}, 0};
      stored.push_back(std::uint8_t(byte));
    }
    for (std::size_t i = control < 128 ? 1 : count; i > 0; --i) result.row = result.row + stored;
  }
  return result;
}

void expect_same(Bytes packets, std::size_t row_bytes, std::size_t pixel_bytes) {
  packets.shrink_to_fit();
  const Decoded expected = decode(packets, row_bytes, pixel_bytes);
  Bytes row(row_bytes + 1, 0x5a);
  const auto [end, used] = ka::expand_pixels(packets, std::span(row).first(row_bytes), pixel_bytes);
  ASSERT_EQ(end, expected.end);
  ASSERT_EQ(row.back(), 0x5a);
  if (end != RowEnd::kWhole) return;
  row.pop_back();
  ASSERT_EQ(row, expected.row);
  ASSERT_EQ(used, expected.used);
}

// Packets of all lengths for rows that they fill, pass, or do not reach; and cut short anywhere.
TEST(PixelPackets, AreDecodedAsOneByteAfterTheOther) {
  std::mt19937 random(2);
  for (std::size_t pixel_bytes = 1; pixel_bytes <= 4; ++pixel_bytes) {
    for (int i = 0; i < 1500; ++i) {
      Bytes packets;
      std::size_t pixels = 0;
      for (std::size_t n = random() % 10; n > 0; --n) {
        const auto control = std::uint8_t(random());
        const std::size_t count = control % 128U + 1;
        packets.push_back(control);
        for (std::size_t k = (control < 128 ? count : 1) * pixel_bytes; k > 0; --k) {
          packets.push_back(std::uint8_t(random()));
        }
        pixels += count;
      }
      const std::size_t shift = random() % 3;  // one pixel less, as many, one more
      const std::size_t row_bytes =
          (pixels + shift - std::min<std::size_t>(pixels, 1)) * pixel_bytes;
      expect_same(packets, row_bytes, pixel_bytes);
      packets.resize(random() % (packets.size() + 1));
      expect_same(packets, row_bytes, pixel_bytes);
    }
  }
}

// Packets that are at hand piece by piece, and skipped.
TEST(PackBits, RowsComeBackPieceByPieceAndAreSkipped) {
  std::mt19937 random(3);
  for (int i = 0; i < 3000; ++i) {
    const Bytes row = test::random_line<std::uint8_t>(random);
    Bytes packets(ka::packbits_bound(row.size())), read(row.size());
    packets.resize(ka::compact_packbits(row, packets));
    ka::PackBitsRow part{RowEnd::kShort, 0, 0};
    std::size_t used = 0, filled = 0;
    while (part.end == RowEnd::kShort && used < packets.size()) {
      const auto count = std::min(packets.size() - used, ka::kLongestPackBits);
      const Bytes piece(packets.begin() + long(used), packets.begin() + long(used + count));
      part = ka::expand_packbits(piece, std::span(read).subspan(filled));
      ASSERT_GT(part.used, 0u);
      used += part.used;
      filled += part.filled;
    }
    ASSERT_EQ(read, row);
    ASSERT_EQ(used, packets.size());
    for (const std::size_t bytes : {row.size(), row.size() / 2}) {
      const auto skipped = ka::skip_packbits(packets, bytes);
      const auto expanded = ka::expand_packbits(packets, std::span(read).first(bytes));
      ASSERT_EQ(skipped.end, expanded.end);
      if (skipped.end == RowEnd::kWhole) {
        ASSERT_EQ(skipped.used, expanded.used);
      }
    }
  }
}

TEST(PackBits, ControlsWithoutAMeaningAreLeftOut) {
  const Bytes packets = {128, 128, 1, 5, 6, 128, 255, 7, 128};
  Bytes row(4);
  EXPECT_EQ(ka::expand_packbits(packets, row).end, RowEnd::kWhole);
  EXPECT_EQ(ka::expand_packbits(packets, row).used, 8u);  // the next row begins behind it
  EXPECT_EQ(row, (Bytes{5, 6, 7, 7}));
  EXPECT_EQ(ka::skip_packbits(packets, 2).used, 5u);
}

// Run packets, decoded one pixel after the other.
ka::RunRow decode_runs(const Bytes& packets, std::array<Bytes, 3>& planes, std::size_t count) {
  ka::RunRow row{RowEnd::kWhole, 0, 0};
  for (; row.pixels < count; row.used += 4) {
    if (packets.size() - row.used < 4) return {RowEnd::kShort, row.used, row.pixels};
    const std::size_t length = packets[row.used];
    if (length == 0 || length > count - row.pixels) {
      return {RowEnd::kCorrupt, row.used, row.pixels};
    }
    for (std::size_t i = 0; i < length; ++i, ++row.pixels) {
      for (std::size_t c = 0; c < 3; ++c) planes[c][row.pixels] = packets[row.used + 1 + c];
    }
  }
  return row;
}

// Packets of one pixel for the most part, of up to 20, or of any length; now and then of none.
Bytes random_runs(std::mt19937& random, std::size_t& pixels) {
  Bytes packets;
  const std::size_t longest = std::array<std::size_t, 4>{1, 2, 20, 255}[random() % 4];
  for (std::size_t n = random() % 90; n > 0; --n) {
    const bool is_short = random() % 12 != 0;
    const std::size_t length = random() % 200 == 0 ? 0 : is_short ? 1 : 1 + random() % longest;
    packets.push_back(std::uint8_t(length));
    for (int c = 0; c < 3; ++c) packets.push_back(std::uint8_t(random()));
    pixels += length;
  }
  return packets;
}

void expect_same_runs(Bytes packets, std::size_t count) {
  packets.shrink_to_fit();
  std::array<Bytes, 3> expected;
  expected.fill(Bytes(count));
  const ka::RunRow wanted = decode_runs(packets, expected, count);
  for (const auto kernel : ka::usable_kernels(ka::run_kernels())) {
    std::array<Bytes, 3> planes;
    planes.fill(Bytes(count + 1, 0x5a));
    ka::RunRow row{};
    kernel(packets, {planes[0].data(), planes[1].data(), planes[2].data()}, count, row);
    ASSERT_EQ(row.end, wanted.end);
    ASSERT_EQ(row.used, wanted.used);
    ASSERT_EQ(row.pixels, wanted.pixels);
    for (std::size_t c = 0; c < 3; ++c) {
      ASSERT_EQ(planes[c].back(), 0x5a);
      ASSERT_TRUE(
          std::equal(planes[c].begin(), planes[c].begin() + long(row.pixels), expected[c].begin()));
    }
  }
}

// Rows that end with a packet, inside one, or behind the last; packets that are cut off.
TEST(RunPackets, AreDecodedAsOnePixelAfterTheOther) {
  std::mt19937 random(3);
  for (int i = 0; i < 4000; ++i) {
    std::size_t pixels = 0;
    Bytes packets = random_runs(random, pixels);
    expect_same_runs(packets, pixels - std::min<std::size_t>(pixels, random() % 3));
    expect_same_runs(packets, pixels + 1);
    packets.resize(packets.size() - std::min<std::size_t>(packets.size(), random() % 6));
    expect_same_runs(packets, pixels);
  }
}

// Pairs, decoded one sample after the other.
TEST(Pairs, AreDecodedAsOneSampleAfterTheOther) {
  std::mt19937 random(4);
  for (int i = 0; i < 4000; ++i) {
    Bytes pairs, samples;
    for (std::size_t n = random() % 20; n > 0; --n) {
      const std::size_t longest = std::array<std::size_t, 3>{1, 20, 256}[random() % 3];
      const std::size_t length = random() % longest;
      pairs = pairs + Bytes{std::uint8_t(length), std::uint8_t(random())};
      samples = samples + repeated(length, pairs.back());
    }
    if (random() % 4 == 0) pairs.push_back(std::uint8_t(random()));
    pairs.shrink_to_fit();
    for (const std::size_t count : {samples.size(), samples.size() + 1, samples.size() / 2}) {
      Bytes row(count + 1, 0x5a);
      const RowEnd end = ka::expand_pairs(pairs, std::span(row).first(count));
      const bool is_whole = count == samples.size() && pairs.size() % 2 == 0;
      ASSERT_EQ(end, is_whole                 ? RowEnd::kWhole
                     : count > samples.size() ? RowEnd::kShort
                                              : RowEnd::kCorrupt);
      ASSERT_EQ(row.back(), 0x5a);
      row.pop_back();
      ASSERT_TRUE(!is_whole || row == samples);
    }
  }
}

}  // namespace
}  // namespace test
