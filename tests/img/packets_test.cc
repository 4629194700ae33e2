// Packets of bytes and pixels with their encoders: the exact bytes, and decoders that stay between
// both ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "packet_rows.h"
#include "rle.h"

namespace {

using ka::RowEnd;
using test::Bytes;
using test::repeated;
using test::operator+;

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
constexpr Form kRuns = {ka::expand_repeats, nullptr};

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
    {"Literals129", kBytes, 1, test::different(129),
     Bytes{127} + test::different(128) + Bytes{0, 64}},
    {"SignedRun", kSigned, 1, {7, 7, 7, 1}, {2, 7, 0xff, 1}},
    {"SignedRun127", kSigned, 1, repeated(127, 5), {126, 5}},
    {"SignedRun129", kSigned, 1, repeated(129, 5), {126, 5, 0xfe, 5, 5}},
    {"SignedLiterals128", kSigned, 1, test::different(128),
     Bytes{0x81} + test::different(127) + Bytes{0xff, 63}},
    {"MixedRunOfPixels", kMixed, 2, {1, 2, 1, 2, 1, 2, 1, 3}, {130, 1, 2, 0, 1, 3}},
    {"MixedRun128", kMixed, 1, repeated(128, 5), {255, 5}},
    {"MixedRun129", kMixed, 1, repeated(129, 5), {128, 0, 129, 5}},
    {"MixedRun300", kMixed, 1, repeated(300, 5), {128, 1, 44, 5}},
    {"MixedRun65536", kMixed, 1, repeated(65536, 5), {128, 255, 255, 5, 0, 5}},
    {"MixedLiterals129", kMixed, 1, test::different(129),
     Bytes{127} + test::different(128) + Bytes{0, 64}},
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
        for (const std::uint8_t value : test::random_line<std::uint8_t>(random)) {
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
