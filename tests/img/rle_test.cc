// Run-length packets: the exact bytes of the encoder, and decoders that stay between both ends.
#include "rle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "packet_rows.h"

namespace {

using ka::RowEnd;
using test::Bytes;
using test::different;
using test::random_line;
using test::repeated;
using test::operator+;

template <typename Sample>
Bytes compact(const std::vector<Sample>& line) {
  Bytes packets(ka::counted_bound(line.size(), sizeof(Sample)));
  packets.resize(ka::compact_counted<Sample>(line, packets));
  return packets;
}

// Decodes from and to blocks that end with the last byte, so that a sanitizer sees the next one,
// and with a sample behind the line that must not change.
template <typename Sample>
RowEnd expand(const Bytes& packets, std::vector<Sample>& line) {
  const auto exact = std::make_unique<std::uint8_t[]>(packets.size());
  std::ranges::copy(packets, exact.get());
  const Sample guard = 0x5a;
  line.push_back(guard);
  const RowEnd end = ka::expand_counted<Sample>({exact.get(), packets.size()},
                                                std::span(line).first(line.size() - 1));
  EXPECT_EQ(line.back(), guard);
  line.pop_back();
  return end;
}

template <typename Sample>
struct Row {
  const char* name;
  std::vector<Sample> line;
  Bytes packets;
};

const std::vector<Row<std::uint8_t>> kRows = {
    {"Empty", {}, {0}},
    {"OneSample", {7}, {1, 7, 0}},
    {"TwoSamples", {7, 8}, {1, 7, 1, 8, 0}},
    {"TwoEqualSamples", {7, 7}, {2, 7, 0}},
    {"ThreeSamples", {7, 8, 9}, {0x81, 7, 1, 8, 1, 9, 0}},
    {"EndsWithTwoEqual", {7, 8, 8}, {0x81, 7, 2, 8, 0}},
    {"ThreeEqual", {1, 2, 3, 3, 3}, {0x82, 1, 2, 3, 3, 0}},
    {"TwoEqualAreLiterals", {1, 1, 2, 2, 2, 4}, {0x82, 1, 1, 3, 2, 1, 4, 0}},
    {"Run126", repeated(126, 5), {126, 5, 0}},
    {"Run127", repeated(127, 5), {126, 5, 1, 5, 0}},
    {"Run300", repeated(300, 5), {126, 5, 126, 5, 48, 5, 0}},
    // the last two samples, which are equal, are a run
    {"Literals126", different(128), Bytes{254} + different(126) + Bytes{2, 63, 0}},
    {"Literals128", different(130), Bytes{254} + different(126) + Bytes{0x82, 63, 63, 2, 64, 0}},
};

TEST(CountedPackets, AreTheseBytes) {
  for (const auto& [name, line, packets] : kRows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(compact(line), packets);
    Bytes read(line.size());
    EXPECT_EQ(expand(packets, read), RowEnd::kWhole);
    EXPECT_EQ(read, line);

    // the same of 16 bits: each sample and each control in two bytes, the higher first
    const std::vector<std::uint16_t> wide(line.begin(), line.end());
    Bytes wide_packets;
    for (const std::uint8_t byte : packets) wide_packets = wide_packets + Bytes{0, byte};
    EXPECT_EQ(compact(wide), wide_packets);
    std::vector<std::uint16_t> wide_read(line.size());
    EXPECT_EQ(expand(wide_packets, wide_read), RowEnd::kWhole);
    EXPECT_EQ(wide_read, wide);
  }
}

template <typename Sample>
class CountedPacketsOf : public testing::Test {};
using Samples = testing::Types<std::uint8_t, std::uint16_t>;
TYPED_TEST_SUITE(CountedPacketsOf, Samples);

TYPED_TEST(CountedPacketsOf, RandomLinesComeBack) {
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    const auto line = random_line<TypeParam>(random);
    const Bytes packets = compact(line);
    auto read = line;
    std::ranges::fill(read, TypeParam{0});
    ASSERT_EQ(expand(packets, read), RowEnd::kWhole);
    ASSERT_EQ(read, line);

    auto shorter = line, longer = line;
    longer.push_back(0);
    EXPECT_EQ(expand(packets, longer), RowEnd::kCorrupt);
    if (line.empty()) continue;
    shorter.pop_back();
    EXPECT_EQ(expand(packets, shorter), RowEnd::kCorrupt);
    // without its zero, then without some of its last packet
    const auto cut = [&](std::size_t bytes) {
      return Bytes(packets.begin(), packets.end() - long(bytes));
    };
    EXPECT_EQ(expand(cut(sizeof(TypeParam)), read), RowEnd::kWhole);
    EXPECT_EQ(expand(cut(sizeof(TypeParam) + 1), read), RowEnd::kShort);
    EXPECT_EQ(expand(cut(packets.size()), read), RowEnd::kShort);
  }
}

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

void expect_same(const Bytes& packets, std::size_t row_bytes, std::size_t pixel_bytes) {
  const Decoded expected = decode(packets, row_bytes, pixel_bytes);
  const auto exact = std::make_unique<std::uint8_t[]>(packets.size());
  std::ranges::copy(packets, exact.get());
  Bytes row(row_bytes + 1, 0x5a);
  const auto [end, used] = ka::expand_pixels({exact.get(), packets.size()},
                                             std::span(row).first(row_bytes), pixel_bytes);
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

TEST(PixelPackets, EndWithTheRow) {
  const Bytes packets = {0x81, 1, 2, 3, 0x80, 4, 5, 6};
  Bytes row(6);
  const auto [end, used] = ka::expand_pixels(packets, row, 3);
  EXPECT_EQ(end, RowEnd::kWhole);
  EXPECT_EQ(used, 4u);
  EXPECT_EQ(row, (Bytes{1, 2, 3, 1, 2, 3}));
}

Bytes pack_bits(const Bytes& row) {
  Bytes packets(ka::packbits_bound(row.size()));
  const auto exact = std::make_unique<std::uint8_t[]>(packets.size());
  const std::size_t used = ka::compact_packbits(row, {exact.get(), packets.size()});
  return {exact.get(), exact.get() + used};
}

const std::vector<Row<std::uint8_t>> kPackBitsRows = {
    {"Empty", {}, {}},
    {"OneByte", {7}, {0, 7}},
    {"Literals", {7, 8, 9}, {2, 7, 8, 9}},
    {"RunOfTwo", {7, 7}, {255, 7}},
    {"Run", repeated(9, 7), {248, 7}},
    {"Run128", repeated(128, 7), {129, 7}},
    {"Run129", repeated(129, 7), {129, 7, 0, 7}},
    {"Run130", repeated(130, 7), {129, 7, 255, 7}},
    {"Run300", repeated(300, 7), {129, 7, 129, 7, 213, 7}},
    {"RunOfTwoBetweenLiterals", {1, 2, 2, 3}, {3, 1, 2, 2, 3}},
    {"RunsOfTwoBehindALiteral", {1, 2, 2, 3, 3, 4}, {5, 1, 2, 2, 3, 3, 4}},
    {"RunOfTwoAtTheEnd", {1, 2, 2}, {0, 1, 255, 2}},
    {"RunOfTwoBeforeALongerOne", {1, 2, 2, 3, 3, 3}, {0, 1, 255, 2, 254, 3}},
    {"RunOfThreeBetweenLiterals", {1, 2, 2, 2, 3}, {0, 1, 254, 2, 0, 3}},
    {"RunsBeforeLiterals", {2, 2, 3, 3, 1}, {255, 2, 255, 3, 0, 1}},
    {"RunOf130BehindALiteral", Bytes{1} + repeated(130, 2), {0, 1, 129, 2, 255, 2}},
    {"RunOf129BehindALiteral", Bytes{1} + repeated(129, 2), {0, 1, 129, 2, 0, 2}},
};

// Bytes of which no two neighbours are equal.
Bytes alternating(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = std::uint8_t(i % 2 + 1);
  return bytes;
}

// A literal holds 128 bytes; a run of two joins it as long as there is room for both.
const std::vector<Row<std::uint8_t>> kFullLiterals = {
    {"Literals128", alternating(128), Bytes{127} + alternating(128)},
    {"Literals129", alternating(129), Bytes{127} + alternating(128) + Bytes{0, 1}},
    {"RunOfTwoBehind128", alternating(128) + Bytes{9, 9, 1},
     Bytes{127} + alternating(128) + Bytes{255, 9, 0, 1}},
    {"RunOfTwoFills", alternating(126) + Bytes{9, 9, 1},
     Bytes{127} + alternating(126) + Bytes{9, 9, 0, 1}},
    {"RunOfTwoHasNoRoom", alternating(127) + Bytes{9, 9, 1},
     Bytes{126} + alternating(127) + Bytes{255, 9, 0, 1}},
};

TEST(PackBits, AreTheseBytes) {
  for (const auto* const table : {&kPackBitsRows, &kFullLiterals}) {
    for (const auto& [name, row, packets] : *table) {
      SCOPED_TRACE(name);
      EXPECT_EQ(pack_bits(row), packets);
      Bytes read(row.size());
      EXPECT_EQ(ka::expand_packbits(packets, read).end, RowEnd::kWhole);
      EXPECT_EQ(read, row);
    }
  }
}

// Decodes packets that are at hand piece by piece.
RowEnd expand_pieces(const Bytes& packets, std::span<std::uint8_t> row, std::size_t piece) {
  std::size_t used = 0, filled = 0;
  while (true) {
    const std::size_t count = std::min(piece, packets.size() - used);
    const auto exact = std::make_unique<std::uint8_t[]>(count);
    std::copy_n(packets.begin() + long(used), count, exact.get());
    const auto part = ka::expand_packbits({exact.get(), count}, row.subspan(filled));
    used += part.used;
    filled += part.filled;
    if (part.end != RowEnd::kShort || part.used == 0) return part.end;
  }
}

TEST(PackBits, RandomRowsComeBack) {
  std::mt19937 random(3);
  for (int i = 0; i < 3000; ++i) {
    Bytes row;
    const std::size_t longest = 1 + random() % (i % 10 == 0 ? 300 : 4);
    for (std::size_t runs = random() % 300; runs > 0; --runs) {
      row = row + repeated(1 + random() % longest, std::uint8_t(1 + random() % 3));
    }
    Bytes packets = pack_bits(row);
    ASSERT_LE(packets.size(), ka::packbits_bound(row.size()));
    for (const std::size_t piece : {packets.size(), ka::kLongestPackBits}) {
      Bytes read(row.size() + 1, 0x5a);
      ASSERT_EQ(expand_pieces(packets, std::span(read).first(row.size()), piece), RowEnd::kWhole);
      ASSERT_EQ(read.back(), 0x5a);
      read.pop_back();
      ASSERT_EQ(read, row);
    }
    const auto skipped = ka::skip_packbits(packets, row.size());
    EXPECT_EQ(skipped.end, RowEnd::kWhole);
    EXPECT_EQ(skipped.used, packets.size());
    if (row.empty()) continue;
    Bytes shorter(row.size() - 1);
    const auto crossing = ka::expand_packbits(packets, shorter);
    const bool ends_with_one = packets[packets.size() - 2] == 0;  // no byte of the row is 0
    EXPECT_EQ(crossing.end, ends_with_one ? RowEnd::kWhole : RowEnd::kCorrupt);
    EXPECT_EQ(ka::skip_packbits(packets, shorter.size()).end, crossing.end);
    EXPECT_EQ(ka::skip_packbits(packets, shorter.size()).used, crossing.used);
    packets.pop_back();
    EXPECT_EQ(ka::expand_packbits(packets, row).end, RowEnd::kShort);
    EXPECT_EQ(ka::skip_packbits(packets, row.size()).end, RowEnd::kShort);
  }
}

TEST(PackBits, ControlsWithoutAMeaningAreLeftOut) {
  const Bytes packets = {128, 128, 1, 5, 6, 128, 255, 7, 128};
  Bytes row(4);
  const auto [end, used, filled] = ka::expand_packbits(packets, row);
  EXPECT_EQ(end, RowEnd::kWhole);
  EXPECT_EQ(used, packets.size() - 1);  // what stands behind belongs to the next row
  EXPECT_EQ(filled, 4u);
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

void expect_same_runs(const Bytes& packets, std::size_t count) {
  const auto exact = std::make_unique<std::uint8_t[]>(packets.size());
  std::ranges::copy(packets, exact.get());
  std::array<Bytes, 3> expected;
  expected.fill(Bytes(count));
  const ka::RunRow wanted = decode_runs(packets, expected, count);
  for (const auto kernel : ka::usable_kernels(ka::run_kernels())) {
    std::array<Bytes, 3> planes;
    planes.fill(Bytes(count + 1, 0x5a));
    ka::RunRow row{};
    kernel({exact.get(), packets.size()}, {planes[0].data(), planes[1].data(), planes[2].data()},
           count, row);
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
    const auto exact = std::make_unique<std::uint8_t[]>(pairs.size());
    std::ranges::copy(pairs, exact.get());
    for (const std::size_t count : {samples.size(), samples.size() + 1, samples.size() / 2}) {
      Bytes row(count + 1, 0x5a);
      const RowEnd end = ka::expand_pairs({exact.get(), pairs.size()}, std::span(row).first(count));
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

struct ScanlineRow {
  const char* name;
  Bytes row, packets;
};

const std::vector<ScanlineRow> kScanlineRows = {
    {"OneByte", {7}, {1, 7}},
    {"TwoEqualBytes", {7, 7}, {130, 7}},
    {"LiteralsEndAtARun", {1, 2, 3, 3}, {2, 1, 2, 130, 3}},
    {"RunsSideBySide", {1, 1, 2, 2}, {130, 1, 130, 2}},
    {"LiteralsBehindARun", {1, 1, 2, 3}, {130, 1, 2, 2, 3}},
    {"Run127", repeated(127, 5), {255, 5}},
    {"Run128", repeated(128, 5), {255, 5, 1, 5}},
    {"Run129", repeated(129, 5), {255, 5, 130, 5}},
};

TEST(ScanlinePackets, AreTheseBytes) {
  for (const auto& [name, row, packets] : kScanlineRows) {
    SCOPED_TRACE(name);
    Bytes written(ka::scanline_bound(row.size()));
    written.resize(ka::compact_scanline(row, written));
    EXPECT_EQ(written, packets);
  }
}

// Every prefix of the packets of random rows, for rows of their length; all of them for rows of one
// byte less.
TEST(ScanlinePackets, ComeBackOrAreRefused) {
  std::mt19937 random(3);
  for (int i = 0; i < 300; ++i) {
    const auto row = random_line<std::uint8_t>(random);
    if (row.empty()) continue;
    Bytes packets(ka::scanline_bound(row.size()));
    packets.resize(ka::compact_scanline(row, packets));
    for (std::size_t cut = 0; cut <= packets.size(); ++cut) {
      const auto exact = std::make_unique<std::uint8_t[]>(cut);
      std::copy_n(packets.begin(), cut, exact.get());
      Bytes read(row.size() + 1, 0x5a);
      const auto [end, used] =
          ka::expand_scanline({exact.get(), cut}, std::span(read).first(row.size()));
      ASSERT_EQ(end, cut == packets.size() ? RowEnd::kWhole : RowEnd::kShort);
      ASSERT_EQ(read.back(), 0x5a);
      if (end != RowEnd::kWhole) continue;
      read.pop_back();
      ASSERT_EQ(read, row);
      ASSERT_EQ(used, packets.size());
    }
    Bytes shorter(row.size() - 1);
    const auto [end, used] = ka::expand_scanline(packets, shorter);
    const bool left_one = end == RowEnd::kWhole && used == packets.size() - 2;
    ASSERT_TRUE(end == RowEnd::kCorrupt || left_one);  // a packet of one byte is not needed then
  }
}

}  // namespace
