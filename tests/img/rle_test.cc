// Run-length packets: the exact bytes of the encoder, and decoders that stay between both ends.
#include "rle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using ka::RowEnd;

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

Bytes repeated(std::size_t count, std::uint8_t value) { return Bytes(count, value); }

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Samples of which no three are equal.
Bytes different(std::size_t count) {
  Bytes samples(count);
  for (std::size_t i = 0; i < count; ++i) samples[i] = std::uint8_t(i / 2);
  return samples;
}

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

// Stretches of equal samples up to twice the longest packet, and of others.
template <typename Sample>
std::vector<Sample> random_line(std::mt19937& random) {
  std::vector<Sample> line;
  for (std::size_t stretches = random() % 12; stretches > 0; --stretches) {
    const std::size_t length = random() % (random() % 4 == 0 ? 260 : 12);
    const bool is_run = random() % 2 == 0;
    const auto value = Sample(random());
    for (std::size_t i = 0; i < length; ++i) line.push_back(is_run ? value : Sample(random()));
  }
  return line;
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

// The other packets, each with its encoder.
using Expand = ka::PixelRow (*)(std::span<const std::uint8_t>, std::span<std::uint8_t>,
                                std::size_t);
using Compact = std::size_t (*)(std::span<const std::uint8_t>, std::span<std::uint8_t>,
                                std::size_t);
struct Form {
  Expand expand;
  Compact compact;
};
constexpr Form kBytes = {ka::expand_pixels, [](auto row, auto packets, auto) {
                           return ka::compact_bytes(row, packets);
                         }};
constexpr Form kSigned = {
    [](auto packets, auto row, auto) {
      return ka::PixelRow{ka::expand_signed(packets, row), packets.size()};
    },
    [](auto row, auto packets, auto) { return ka::compact_signed(row, packets); }};
constexpr Form kMixed = {ka::expand_mixed, ka::compact_mixed};
constexpr Form kRuns = {ka::expand_runs, nullptr};

struct Encoded {
  const char* name;
  Form form;
  std::size_t pixel_bytes;
  Bytes row, packets;
};

// A byte and its packets from first to last, with a guard behind each.
RowEnd expand(const Form& form, const Bytes& packets, Bytes& row, std::size_t pixel_bytes) {
  const auto exact = std::make_unique<std::uint8_t[]>(packets.size());
  std::ranges::copy(packets, exact.get());
  row.push_back(0x5a);
  const auto [end, used] =
      form.expand({exact.get(), packets.size()}, std::span(row).first(row.size() - 1), pixel_bytes);
  EXPECT_EQ(row.back(), 0x5a);
  row.pop_back();
  EXPECT_TRUE(end != RowEnd::kWhole || used == packets.size());
  return end;
}

const std::vector<Encoded> kEncoded = {
    {"NoByte", kBytes, 1, {}, {}},
    {"OneByte", kBytes, 1, {7}, {0, 7}},
    {"TwoEqualBytesAreLiterals", kBytes, 1, {7, 7, 8}, {2, 7, 7, 8}},
    {"ThreeEqualBytesAreARun", kBytes, 1, {1, 7, 7, 7, 2, 2}, {0, 1, 0x82, 7, 1, 2, 2}},
    {"Run128", kBytes, 1, repeated(128, 5), {0xff, 5}},
    {"Run131", kBytes, 1, repeated(131, 5), {0xff, 5, 0x82, 5}},
    {"RestOfARunJoinsTheLiterals", kBytes, 1, repeated(130, 5) + Bytes{6}, {0xff, 5, 2, 5, 5, 6}},
    {"Literals129", kBytes, 1, different(129), Bytes{127} + different(128) + Bytes{0, 64}},
    {"SignedRun", kSigned, 1, {7, 7, 7, 1}, {2, 7, 0xff, 1}},
    {"SignedRun127", kSigned, 1, repeated(127, 5), {126, 5}},
    {"SignedRun129", kSigned, 1, repeated(129, 5), {126, 5, 0xfe, 5, 5}},
    {"SignedLiterals128", kSigned, 1, different(128),
     Bytes{0x81} + different(127) + Bytes{0xff, 63}},
    {"MixedRunOfPixels", kMixed, 2, {1, 2, 1, 2, 1, 2, 1, 3}, {130, 1, 2, 0, 1, 3}},
    {"MixedRun128", kMixed, 1, repeated(128, 5), {255, 5}},
    {"MixedRun129", kMixed, 1, repeated(129, 5), {128, 0, 129, 5}},
    {"MixedRun300", kMixed, 1, repeated(300, 5), {128, 1, 44, 5}},
    {"MixedRun65536", kMixed, 1, repeated(65536, 5), {128, 255, 255, 5, 0, 5}},
    {"MixedLiterals129", kMixed, 1, different(129), Bytes{127} + different(128) + Bytes{0, 64}},
};

TEST(Packets, AreTheseBytes) {
  for (const auto& [name, form, pixel_bytes, row, packets] : kEncoded) {
    SCOPED_TRACE(name);
    Bytes compacted(ka::compact_bound(row.size() / pixel_bytes, pixel_bytes));
    compacted.resize(form.compact(row, compacted, pixel_bytes));
    EXPECT_EQ(compacted, packets);
    Bytes read(row.size());
    EXPECT_EQ(expand(form, packets, read, pixel_bytes), RowEnd::kWhole);
    EXPECT_EQ(read, row);
  }
}

struct Damaged {
  const char* name;
  Form form;
  std::size_t row_bytes, pixel_bytes;
  Bytes packets;
  RowEnd end;
};
const std::vector<Damaged> kDamaged = {
    {"SignedTooFew", kSigned, 3, 1, {1, 7}, RowEnd::kShort},
    {"SignedRunTooLong", kSigned, 3, 1, {3, 7}, RowEnd::kCorrupt},
    {"SignedLiteralsTooLong", kSigned, 1, 1, {0xfe, 7, 7}, RowEnd::kCorrupt},
    {"SignedLiteralsEnd", kSigned, 3, 1, {0xfd, 7, 7}, RowEnd::kShort},
    {"SignedByteTooMany", kSigned, 2, 1, {1, 7, 0}, RowEnd::kCorrupt},
    {"MixedRunTooLong", kMixed, 4, 2, {130, 1, 2}, RowEnd::kCorrupt},
    {"MixedWideRunTooLong", kMixed, 299, 1, {128, 1, 44, 5}, RowEnd::kCorrupt},
    {"MixedWideCountEnds", kMixed, 300, 1, {128, 1}, RowEnd::kShort},
    {"MixedWideRunWithoutItsValue", kMixed, 300, 1, {128, 1, 44}, RowEnd::kShort},
    {"MixedWideCountOfNothing", kMixed, 1, 1, {128, 0, 0, 5}, RowEnd::kCorrupt},
    {"MixedLiteralsTooLong", kMixed, 2, 2, {1, 1, 2, 3, 4}, RowEnd::kCorrupt},
    {"RunTooLong", kRuns, 4, 2, {3, 1, 2}, RowEnd::kCorrupt},
    {"RunOfNothing", kRuns, 4, 2, {0, 1, 2, 2, 1, 2}, RowEnd::kCorrupt},
    {"RunWithHalfAPixel", kRuns, 4, 2, {2, 1}, RowEnd::kShort},
};

TEST(Packets, ThatAreDamagedAreTold) {
  for (const auto& [name, form, row_bytes, pixel_bytes, packets, end] : kDamaged) {
    SCOPED_TRACE(name);
    Bytes row(row_bytes);
    EXPECT_EQ(expand(form, packets, row, pixel_bytes), end);
  }
}

TEST(Packets, RunsOfUpTo255PixelsAreRead) {
  Bytes row(3 * 256);
  EXPECT_EQ(expand(kRuns, {255, 1, 2, 3, 1, 4, 5, 6}, row, 3), RowEnd::kWhole);
  for (std::size_t i = 0; i < 256; ++i) {
    for (std::size_t c = 0; c < 3; ++c) ASSERT_EQ(row[3 * i + c], c + (i < 255 ? 1 : 4)) << i;
  }
}

TEST(Packets, RandomRowsComeBack) {
  std::mt19937 random(9);
  for (const Form& form : {kBytes, kSigned, kMixed}) {
    for (std::size_t pixel_bytes = 1; pixel_bytes <= (form.expand == ka::expand_mixed ? 4 : 1);
         ++pixel_bytes) {
      for (int i = 0; i < 1000; ++i) {
        Bytes row;
        for (const std::uint8_t value : random_line<std::uint8_t>(random)) {
          row = row + repeated(pixel_bytes, value);
        }
        Bytes packets(ka::compact_bound(row.size() / pixel_bytes, pixel_bytes));
        const std::size_t room = packets.size();
        packets.resize(form.compact(row, packets, pixel_bytes));
        ASSERT_LE(packets.size(), room);
        Bytes read(row.size());
        ASSERT_EQ(expand(form, packets, read, pixel_bytes), RowEnd::kWhole);
        ASSERT_EQ(read, row);
      }
    }
  }
}

}  // namespace
