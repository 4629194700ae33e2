// Run-length packets: one model decodes every form byte by byte. What the decoders make of random,
// damaged and cut packets is compared with it, and what the encoders write comes back.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "rle.h"

namespace {

using ka::Expanded, ka::RowEnd;

using Bytes = std::vector<std::uint8_t>;
using Packets = std::span<const std::uint8_t>;
using RowBytes = std::span<std::uint8_t>;

constexpr std::uint8_t kGuard = 0x5a;

struct Control {
  std::size_t count;
  bool literal;
};

enum Trait : unsigned {
  kClosing = 1,    // a count of 0 ends the row
  kEmpty = 2,      // packets may have no samples
  kWide = 4,       // after a count of 0 follows one of 16 bits
  kOneLength = 8,  // packets have one length and are read whole
  kReadsOn = 16,   // packets after the row's last sample belong to it
  kExact = 32,     // all packets belong to the row
  kBigWords = 64,  // controls and samples are big-endian words
};

struct Form {
  unsigned traits;
  Control (*control)(std::size_t byte);
  Expanded (*expand)(Packets packets, RowBytes row, std::size_t size);
  std::size_t (*compact)(Packets row, RowBytes packets, std::size_t size) = nullptr;
  std::size_t (*bound)(std::size_t count, std::size_t size) = ka::compact_bound;
};

// The packets of a row with samples of `size` bytes, decoded by what rle.h says of their form.
struct Decoded {
  RowEnd end;
  std::size_t used;  // bytes of whole packets
  Bytes row;
};
Decoded decode(const Form& form, std::size_t size, const Bytes& packets, std::size_t row_bytes) {
  const auto has = [&](unsigned trait) { return (form.traits & trait) != 0; };
  Decoded d{RowEnd::kWhole, 0, {}};
  const auto ended = [&](RowEnd end) {
    d.end = end;
    return d;
  };
  while (d.row.size() < row_bytes || has(kClosing | kReadsOn)) {
    const bool is_full = d.row.size() == row_bytes;
    std::size_t at = d.used + (has(kBigWords) ? 2 : 1);
    if (at > packets.size()) return ended(is_full ? RowEnd::kWhole : RowEnd::kShort);
    if (has(kOneLength) && at + size > packets.size()) {
      return ended(is_full ? RowEnd::kCorrupt : RowEnd::kShort);
    }
    auto [count, literal] = form.control(packets[at - 1]);
    if (has(kWide) && count == 0) {
      if (packets.size() - at < 2) return ended(RowEnd::kShort);
      count = packets[at] * 256U + packets[at + 1];
      at += 2;
    }
    if (count == 0 && !has(kEmpty)) {
      return ended(has(kClosing) && is_full ? RowEnd::kWhole : RowEnd::kCorrupt);
    }
    if (count * size > row_bytes - d.row.size()) return ended(RowEnd::kCorrupt);
    const std::size_t stored = (literal ? count : 1) * size;
    if (stored > packets.size() - at) return ended(RowEnd::kShort);
    for (std::size_t i = 0; i < count * size; ++i) {
      d.row.push_back(packets[at + (literal ? i : i % size) / size * size +
                              (has(kBigWords) ? size - 1 - i % size : i % size)]);
    }
    d.used = at + stored;
  }
  return ended(has(kExact) && d.used < packets.size() ? RowEnd::kCorrupt : RowEnd::kWhole);
}

template <auto Decoder>
Expanded expand(Packets packets, RowBytes row, std::size_t size) {
  if constexpr (requires { Decoder(packets, row, size); }) {
    return Decoder(packets, row, size);
  } else {
    return Decoder(packets, row);
  }
}
template <auto Encoder>
std::size_t compact(Packets row, RowBytes packets, std::size_t size) {
  if constexpr (requires { Encoder(row, packets, size); }) return Encoder(row, packets, size);
  if constexpr (requires { Encoder(row, packets); }) return Encoder(row, packets);
}
template <auto Bound>
std::size_t bound(std::size_t count, std::size_t /*size*/) {
  return Bound(count);
}

template <typename Sample>
std::span<Sample> samples_of(RowBytes row) {
  return {reinterpret_cast<Sample*>(row.data()), row.size() / sizeof(Sample)};
}
template <typename Sample>
Expanded expand_counted(Packets packets, RowBytes row) {
  return ka::expand_counted<Sample>(packets, samples_of<Sample>(row));
}
template <typename Sample>
std::size_t compact_counted(Packets row, RowBytes packets) {
  const RowBytes bytes(const_cast<std::uint8_t*>(row.data()), row.size());
  return ka::compact_counted<Sample>(samples_of<Sample>(bytes), packets);
}

void expect_same(const Expanded& a, const Expanded& b) {
  EXPECT_TRUE(a.end == b.end && a.used == b.used && a.filled == b.filled);
}

Expanded expand_and_skip(Packets packets, RowBytes row, std::size_t /*size*/) {
  const Expanded result = ka::expand_packbits(packets, row);
  expect_same(ka::skip_packbits(packets, row.size()), result);
  return result;
}

// Into planes, on every instruction set.
Expanded expand_planes(Packets packets, RowBytes row, std::size_t /*size*/) {
  std::vector<Expanded> results;
  for (const auto kernel : ka::usable_kernels(ka::run_kernels())) {
    std::array<Bytes, 3> planes;
    planes.fill(Bytes(row.size() / 3 + 1, kGuard));
    Expanded part{};
    kernel(packets, {planes[0].data(), planes[1].data(), planes[2].data()}, row.size() / 3, part);
    for (const Bytes& plane : planes) EXPECT_EQ(plane.back(), kGuard);
    for (std::size_t i = 0; i < 3 * part.filled; ++i) {
      EXPECT_TRUE(results.empty() || row[i] == planes[i % 3][i / 3]);
      row[i] = planes[i % 3][i / 3];
    }
    results.push_back({part.end, part.used, 3 * part.filled});
    expect_same(results.back(), results.front());
  }
  return results.front();
}

Control counted(std::size_t c) { return {c % 128, c > 127}; }
Control pixels(std::size_t c) { return {c < 128 ? c + 1 : c - 127, c < 128}; }
Control mixed(std::size_t c) { return c == 128 ? Control{0, false} : pixels(c); }
Control runs(std::size_t c) { return {c, false}; }
Control with_sign(std::size_t c) { return {c < 128 ? c + 1 : 256 - c, c > 127}; }
Control scanline(std::size_t c) { return {c > 128 ? c - 128 : c, c <= 128}; }
Control packbits(std::size_t c) { return {c < 128 ? c + 1 : (257 - c) % 129, c <= 128}; }

constexpr auto expand_byte_counts = expand<expand_counted<std::uint8_t>>;
constexpr auto expand_word_counts = expand<expand_counted<std::uint16_t>>;
constexpr auto compact_byte_counts = compact<compact_counted<std::uint8_t>>;
constexpr auto compact_word_counts = compact<compact_counted<std::uint16_t>>;
constexpr auto packbits_bound = bound<ka::packbits_bound>;
constexpr Form kCounted = {kClosing, counted, expand_byte_counts, compact_byte_counts,
                           ka::counted_bound},
               kWords = {kClosing | kBigWords, counted, expand_word_counts, compact_word_counts,
                         ka::counted_bound},
               kBytes = {0, pixels, expand<ka::expand_pixels>, compact<ka::compact_bytes>},
               kSigned = {kExact, with_sign, expand<ka::expand_signed>,
                          compact<ka::compact_signed>},
               kMixed = {kWide, mixed, expand<ka::expand_mixed>, ka::compact_mixed},
               kRepeats = {0, runs, expand<ka::expand_repeats>},
               kPlanes = {kOneLength, runs, expand_planes},
               kPairs = {kEmpty | kOneLength | kReadsOn, runs, expand<ka::expand_pairs>},
               kScanline = {kEmpty, scanline, expand<ka::expand_scanline>,
                            compact<ka::compact_scanline>, bound<ka::scanline_bound>},
               kPackBits = {kEmpty, packbits, expand_and_skip, compact<ka::compact_packbits>,
                            packbits_bound};
const std::vector<std::pair<Form, std::vector<std::size_t>>> kForms = {
    {kCounted, {1}},  {kWords, {2}},    {kBytes, {1, 2, 3, 4}}, {kSigned, {1}},
    {kScanline, {1}}, {kPackBits, {1}}, {kMixed, {1, 2, 3, 4}}, {kRepeats, {1, 2, 3, 4}},
    {kPlanes, {3}},   {kPairs, {1}}};

// Compares a decoder with the model. Packets and row end with their memory, so that a sanitizer
// sees the next byte.
void check(const Form& form, std::size_t size, Bytes packets, std::size_t row_bytes) {
  packets.shrink_to_fit();
  const Decoded expected = decode(form, size, packets, row_bytes);
  Bytes row(row_bytes + 1, kGuard);
  const auto [end, used, filled] = form.expand(packets, std::span(row).first(row_bytes), size);
  ASSERT_EQ(end, expected.end) << testing::PrintToString(packets);
  ASSERT_EQ(row.back(), kGuard);
  ASSERT_EQ(filled, expected.row.size());
  ASSERT_EQ(used, expected.used);
  ASSERT_TRUE(std::equal(expected.row.begin(), expected.row.end(), row.begin()));
}

// Packets mostly of few samples, or of any number; `samples` is how many they have.
Bytes random_packets(const Form& form, std::size_t size, std::mt19937& random,
                     std::size_t& samples) {
  std::array<std::size_t, 256> controls;  // from few samples to many
  std::iota(controls.begin(), controls.end(), 0);
  std::ranges::stable_sort(controls, {}, [&](std::size_t c) { return form.control(c).count; });
  const std::size_t usual = std::array<std::size_t, 4>{2, 4, 40, 256}[random() % 4];
  Bytes packets;
  const auto add = [&](std::size_t count) {
    for (; count > 0; --count) packets.push_back(std::uint8_t(random()));
  };
  for (std::size_t n = random() % (random() % 4 ? 12 : 60); n > 0; --n) {
    const std::size_t c = controls[random() % (random() % 12 ? usual : 256)];
    auto [count, literal] = form.control(c);
    if (count == 0 && !(form.traits & kEmpty) && random() % 16) continue;
    if (form.traits & kBigWords) add(1);
    packets.push_back(std::uint8_t(c));
    if (count == 0 && form.traits & kWide) {
      count = random() % 600;
      packets.insert(packets.end(), {std::uint8_t(count >> 8), std::uint8_t(count)});
    }
    add(size * (literal ? count : 1));
    samples += count;
  }
  return packets;
}

// For rows that the packets fill, pass or do not reach; and cut off.
TEST(Packets, AreDecodedAsTheModelDoes) {
  std::mt19937 random(2);
  for (const auto& [form, sizes] : kForms) {
    for (int i = 0; i < 1000; ++i) {
      const std::size_t size = sizes[random() % sizes.size()];
      std::size_t samples = 0;
      Bytes packets = random_packets(form, size, random, samples);
      for (const std::size_t more : {0U, 1U, 2U}) {
        const std::size_t row = samples + more - std::min<std::size_t>(samples, 1);
        ASSERT_NO_FATAL_FAILURE(check(form, size, packets, row * size));
      }
      if (form.traits & kClosing) packets.resize(packets.size() + size);
      ASSERT_NO_FATAL_FAILURE(check(form, size, packets, samples * size));
      const std::size_t cut = random() % (random() % 2 ? 6 : packets.size() + 1);
      packets.resize(packets.size() - std::min(packets.size(), cut));
      ASSERT_NO_FATAL_FAILURE(check(form, size, packets, samples * size));
      ASSERT_NO_FATAL_FAILURE(check(form, size, packets, random() % (samples + 1) * size));
    }
  }
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes repeated(std::size_t count, std::uint8_t value) { return Bytes(count, value); }
// Samples of which no three are equal, and such of which no two neighbours are.
Bytes different(std::size_t count) {
  Bytes samples(count);
  for (std::size_t i = 0; i < count; ++i) samples[i] = std::uint8_t(i / 2);
  return samples;
}
Bytes alternating(std::size_t count) {
  Bytes samples(count);
  for (std::size_t i = 0; i < count; ++i) samples[i] = std::uint8_t(i % 2 + 1);
  return samples;
}

Bytes compacted(const Form& form, const Bytes& row, std::size_t size) {
  Bytes packets(form.bound(row.size() / size, size));
  const std::size_t used = form.compact(row, packets, size);
  EXPECT_LE(used, packets.size());
  packets.resize(used);
  return packets;
}

struct Encoded {
  Form form;
  std::size_t size;
  Bytes row, packets;
};
const std::vector<Encoded> kEncoded = {
    {kCounted, 1, {7, 8, 9}, {0x81, 7, 1, 8, 1, 9, 0}},
    {kCounted, 1, {1, 1, 2, 2, 2, 4}, {0x82, 1, 1, 3, 2, 1, 4, 0}},
    {kCounted, 1, repeated(127, 5), {126, 5, 1, 5, 0}},
    {kCounted, 1, different(130), Bytes{254} + different(126) + Bytes{0x82, 63, 63, 2, 64, 0}},
    {kWords, 2, {7, 0, 8, 1, 8, 1}, {0, 0x81, 0, 7, 0, 2, 1, 8, 0, 0}},
    {kBytes, 1, {1, 7, 7, 7, 2, 2}, {0, 1, 0x82, 7, 1, 2, 2}},
    {kBytes, 1, repeated(130, 5) + Bytes{6}, {0xff, 5, 2, 5, 5, 6}},
    {kBytes, 1, different(129), Bytes{127} + different(128) + Bytes{0, 64}},
    {kSigned, 1, repeated(129, 5), {126, 5, 0xfe, 5, 5}},
    {kSigned, 1, different(128), Bytes{0x81} + different(127) + Bytes{0xff, 63}},
    {kMixed, 2, {1, 2, 1, 2, 1, 2, 1, 3}, {130, 1, 2, 0, 1, 3}},
    {kMixed, 1, repeated(65536, 5), {128, 255, 255, 5, 0, 5}},
    {kScanline, 1, {1, 1, 2, 2, 3, 4}, {130, 1, 130, 2, 2, 3, 4}},
    {kScanline, 1, repeated(128, 5), {255, 5, 1, 5}},
    {kScanline, 1, alternating(128), Bytes{127} + alternating(127) + Bytes{1, 2}},
    {kPackBits, 1, repeated(300, 7), {129, 7, 129, 7, 213, 7}},
    {kPackBits, 1, {1, 2, 2, 3, 3, 4}, {5, 1, 2, 2, 3, 3, 4}},
    {kPackBits, 1, {1, 2, 2, 3, 3, 3}, {0, 1, 255, 2, 254, 3}},
    {kPackBits, 1, Bytes{1} + repeated(130, 2), {0, 1, 129, 2, 255, 2}},
    // A literal holds 128 bytes; a run of two joins it as long as there is room for both.
    {kPackBits, 1, alternating(129), Bytes{127} + alternating(128) + Bytes{0, 1}},
    {kPackBits, 1, alternating(126) + Bytes{9, 9, 1},
     Bytes{127} + alternating(126) + Bytes{9, 9, 0, 1}},
    {kPackBits, 1, alternating(127) + Bytes{9, 9, 1},
     Bytes{126} + alternating(127) + Bytes{255, 9, 0, 1}},
};

TEST(Packets, AreTheseBytes) {
  for (const auto& [form, size, row, packets] : kEncoded) {
    SCOPED_TRACE(testing::PrintToString(packets));
    EXPECT_EQ(compacted(form, row, size), packets);
    check(form, size, packets, row.size());
    EXPECT_EQ(decode(form, size, packets, row.size()).row, row);
  }
}

// Stretches of equal samples up to twice the longest packet, and of others.
Bytes random_row(std::mt19937& random, std::size_t size) {
  Bytes row;
  for (std::size_t stretches = random() % 12; stretches > 0; --stretches) {
    const bool is_run = random() % 2 == 0;
    const auto value = std::uint8_t(random());
    for (std::size_t i = random() % (random() % 4 == 0 ? 260 : 12); i > 0; --i) {
      row = row + repeated(size, is_run ? value : std::uint8_t(random()));
    }
  }
  return row;
}

TEST(Packets, RandomRowsComeBack) {
  std::mt19937 random(9);
  for (const auto& [form, sizes] : kForms) {
    for (int i = 0; form.compact && i < 1500; ++i) {
      const std::size_t size = form.compact == kMixed.compact ? 1 + random() % 4 : sizes[0];
      const Bytes row = random_row(random, size), packets = compacted(form, row, size);
      const Decoded decoded = decode(form, size, packets, row.size());
      ASSERT_TRUE(decoded.end == RowEnd::kWhole && decoded.row == row) << i;
    }
  }
}

}  // namespace
