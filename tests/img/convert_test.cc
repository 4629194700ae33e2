// Conversions between pixel types, one line at a time: against the rules, and worked out by hand.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "convert_reference.h"
#include "img/mode.h"
#include "imgcall.h"
#include "support.h"

namespace {

using test::converted;
using test::kLayouts;
using test::Pixel;
using test::PlanarLine;

constexpr float kWeights[4] = {0.299F, 0.587F, 0.114F, 0.0F};
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
// After the module: level error, message 6.
constexpr char kRefusal[] = "1006: cannot convert to vector,Z,normal,motion,tag";

const char* name_of(int type) { return type == IMG_TYPE_A_FP ? "a_fp" : ka_img_type_name(type); }

constexpr int kRefused[] = {IMG_TYPE_VTA, IMG_TYPE_VTS, IMG_TYPE_Z,
                            IMG_TYPE_N,   IMG_TYPE_TAG, IMG_TYPE_M};

constexpr std::uint32_t kWhole[] = {0,      1,      2,      127,    128,        254,
                                    255,    256,    0x7fff, 0x8000, 0x8001,     0xff00,
                                    0xfffe, 0xffff, 7,      31,     0xffffffff, 0x80000000};
constexpr float kFloats[] = {0.0F,   -0.0F,    1.0F,      0x1.fffffep-1F, 0x1.000002p0F, 0.5F,
                             -0.5F,  2.0F,     -1.0F,     1e-45F,         1e-38F,        1e-33F,
                             1e-32F, 100.0F,   50.0F,     1e5F,           -1e5F,         3e9F,
                             -3e9F,  1e30F,    3.4e38F,   -3.4e38F,       kInfinity,     -kInfinity,
                             kNan,   1.0F / 3, 7 / 255.F, 8e4F / 7,       -1e-30F,       127.5F};

// Samples of which every fourth is one where rules change.
Pixel noise(int type, std::mt19937& random) {
  const int bits = kLayouts[std::size_t(type)].bits;
  Pixel pixel;
  for (double& value : pixel) {
    const bool special = random() % 4 == 0;
    const double unit = double(random() % (1 << 24)) / (1 << 24);
    if (bits == 32 && type != IMG_TYPE_TAG) {
      const double ordinary[] = {unit, 4 * unit - 2, 120 * unit - 10};
      value = special ? kFloats[random() % std::size(kFloats)] : float(ordinary[random() % 3]);
    } else {
      const auto whole = special ? kWhole[random() % std::size(kWhole)] : std::uint32_t(random());
      value = whole & 0xffffffff >> (32 - bits);
    }
  }
  return pixel;
}

bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

// Converts a line of noise and compares each sample with the rules.
void check_pair(int dst_type, int src_type, int width, std::mt19937& random) {
  PlanarLine source(src_type, width, false), line(dst_type, width, true);
  std::vector<Pixel> expected;
  for (int x = 0; x < width; ++x) {
    source.set(x, noise(src_type, random));
    line.set(x, noise(dst_type, random));
  }
  for (int x = 0; x < width; ++x) {
    const Pixel old = line.at(x);
    expected.push_back(converted(dst_type, src_type, source.at(x), old, kWeights).value_or(old));
  }
  const auto bytes_before = source.bytes();
  ka::img_convert(line.record(), source.record(), dst_type, src_type, kWeights, width);
  for (int x = 0; x < width; ++x) {
    for (std::size_t slot = 0; slot < test::kPlanes; ++slot) {
      if (!line.has(slot)) continue;
      ASSERT_PRED2(same, line.at(x)[slot], expected[std::size_t(x)][slot])
          << "pixel " << x << " slot " << slot << " from " << testing::PrintToString(source.at(x));
    }
  }
  EXPECT_TRUE(line.guards_hold()) << width;
  EXPECT_EQ(source.bytes(), bytes_before) << width;
}

class EverySource : public testing::TestWithParam<int> {};

TEST_P(EverySource, FollowsTheRulesToEveryDestination) {
  const test::MessageLog log;  // keeps the refusals
  std::mt19937 random(4711);
  for (int dst = 0; dst < IMG_TYPE_COUNT; ++dst) {
    SCOPED_TRACE(name_of(dst));
    for (int width = 0; width <= 700; width += width < 70 || width == 256 ? 1 : 62) {
      ASSERT_NO_FATAL_FAILURE(check_pair(dst, GetParam(), width, random));
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Types, EverySource, testing::Range(0, int(IMG_TYPE_COUNT)),
                         [](const auto& row) { return std::string(name_of(row.param)); });

TEST(Types, HaveTheirNamesBitsAndComponents) {
  constexpr const char* names[] = {"rgba", "rgba_16", "rgb", "rgb_16", "a",      "a_16",
                                   "s",    "s_16",    "vta", "vts",    "z",      "n",
                                   "tag",  "rgba_fp", "m",   "bit",    "rgb_fp", "coverage",
                                   "rgbe", "a_16",    "s_fp"};
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    EXPECT_STREQ(ka_img_type_name(type), names[type]);
    const auto [bits, slot, planes] = kLayouts[std::size_t(type)];
    EXPECT_EQ(ka_img_nbits[type], bits) << type;
    EXPECT_EQ(ka_img_ncomp[type], planes) << type;
    const int first = type == IMG_TYPE_A_FP ? IMG_TYPE_A_16 : type;  // the two share a name
    EXPECT_EQ(ka_img_type_identify(names[type]), first);
  }
}

// Whatever the source and the width are.
TEST(Convert, DataAsDestinationIsRefusedOncePerLine) {
  for (int dst = 0; dst < IMG_TYPE_COUNT; ++dst) {
    test::MessageLog log;
    PlanarLine source(IMG_TYPE_RGBA, 5, true), line(dst, 5, true);
    ka::img_convert(line.record(), source.record(), dst, IMG_TYPE_RGBA, kWeights, 5);
    ka::img_convert(line.record(), source.record(), dst, IMG_TYPE_COUNT, kWeights, 0);
    const bool is_refused = std::ranges::find(kRefused, dst) != std::end(kRefused);
    EXPECT_EQ(log.lines().size(), is_refused ? 2U : 0U) << name_of(dst);
    const auto says = [](const std::string& text) { return text.ends_with(kRefusal); };
    EXPECT_TRUE(std::ranges::all_of(log.lines(), says)) << name_of(dst);
  }
}

TEST(Convert, UnknownTypesAndAbsentPlanesChangeNothing) {
  PlanarLine source(IMG_TYPE_RGBA, 20, true), line(IMG_TYPE_RGBA, 20, true);
  const auto before = line.bytes();
  const test::MessageLog log;
  for (const int type : {-1, int(IMG_TYPE_COUNT), int(IMG_TYPE_FILE)}) {
    ka::img_convert(line.record(), source.record(), IMG_TYPE_RGBA, type, kWeights, 20);
    ka::img_convert(line.record(), source.record(), type, IMG_TYPE_RGBA, kWeights, 20);
  }
  ka::img_convert(line.record(), source.record(), IMG_TYPE_RGBA, IMG_TYPE_RGB, kWeights, -1);
  img_line empty{};
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    for (const int other : {IMG_TYPE_RGB, IMG_TYPE_S_16, IMG_TYPE_BIT}) {
      ka::img_convert(line.record(), &empty, other, type, kWeights, 20);
      ka::img_convert(&empty, source.record(), type, other, kWeights, 20);
    }
    ka::img_convert(&empty, source.record(), type, IMG_TYPE_RGBA, kWeights, 20);
  }
  EXPECT_EQ(line.bytes(), before);
}

// With the weights of the calling thread.
TEST(Convert, LinesOfImagesAreFetchedInAnyType) {
  const test::Mode mode({.red = 0.75F});
  const test::Image image = test::make_image(IMG_TYPE_RGBA_FP, 3, 2);
  test::set_samples<float>(test::plane(image.get(), 1, test::kR), {0, 0.5, 1});
  test::set_samples<float>(test::plane(image.get(), 1, test::kA), {1, 0, 0.25});
  PlanarLine line(IMG_TYPE_RGBA, 3, true), grey(IMG_TYPE_S_FP, 3, true);
  int components, bits;
  EXPECT_EQ(ka_img_convert(line.record(), &components, &bits, image.get(), 1, IMG_TYPE_RGBA), 1);
  EXPECT_EQ(components, 4);
  EXPECT_EQ(bits, 8);
  EXPECT_EQ(line.at(2), (Pixel{255, 0, 0, 63}));  // 0.25 * 255 = 63.75
  ka_img_convert(grey.record(), &components, &bits, image.get(), 1, IMG_TYPE_S_FP);
  EXPECT_EQ(grey.at(2)[3], 0.75);
}

// A type, and the samples of its planes pixel by pixel.
const std::pair<const char*, const char*> kExamples[] = {
    {"rgba_fp -0.5 0.5 1 2", "rgba 0 127 255 255"},  // clamped and cut
    {"rgba 255 1 0 128", "rgba_16 0xff00 0x100 0 0x8000"},
    {"rgb 1 2 3", "rgba 1 2 3 255"},  // added alpha is full
    {"rgb 1 0 0", "rgba_16 256 0 0 65535"},
    {"rgb 255 0 51", "rgba_fp 1 0 0.2 1"},
    {"rgb 255 255 255", "s_16 65025"},  // 255 * 255
    // 0.299 * 0x8000 + 0.587 * 0x4000 + 0.114 * 0x2000 = 20348.9 = 0x4f7c
    {"rgb_16 0x8000 0x4000 0x2000", "s 0x4f"},
    {"rgb_fp 2 2 2", "s 254"},    // 510 - 256: not clamped
    {"rgb 100 200 50", "a 153"},  // 29.9 + 117.4 + 5.7
    {"rgba 9 9 9 77", "a 77"},    // alpha is not luminance
    {"vts 32767 32769", "rgb 254 1 128"},
    {"vta 32767 32769", "s 128"},   // opposite directions
    {"n 1 -1 2", "rgb 255 1 126"},  // 2 * 127 + 128 - 256
    {"z 50 0 100 -3 60", "rgb 127 127 127 0 0 0 0 0 0 0 0 0 102 102 102"},
    {"tag 0 7 8", "rgb 0 0 0 128 128 128 64 0 0"},
    {"tag 1", "s_16 0x8080"},
    {"coverage 0.5 1", "rgba 128 128 128 255 255 255 255 255"},
    {"bit 1 0", "rgba_16 0xff00 0xff00 0xff00 0xff00 0 0 0 0"},
    {"bit 0 0 0 0 0 0 0 0 1", "s_fp 0 0 0 0 0 0 0 0 1"},
    {"rgbe 128 64 32 129 9 9 9 0", "rgba_fp 1.00390625 0.50390625 0.25390625 1 0 0 0 1"},
    {"s_fp 0.999", "rgbe 254 254 254 128"},  // 254 / 255 * 256 = 254.99
    {"rgb_fp 1 0.5 0.25", "rgbe 128 64 32 129"},
    {"rgb_fp 0 0 0 0.9e-32 0 0 -1 -2 -3", "rgbe 0 0 0 0 0 0 0 0 0 0 0 0"},
    {"rgb_fp nan 1 nan inf 0 0", "rgbe 0 128 0 129 255 0 0 255"},
    {"rgb_fp 0x1.fffffep0 1 0", "rgbe 255 128 0 129"},          // rounded down
    {"rgb_fp 1 -0x1p-7 0", "rgbe 128 255 0 129"},               // floor(-1) = -1, its low byte
    {"rgb_fp 0x1.fffffep126 0x1p126 0", "rgbe 255 128 0 255"},  // the exponent ends here
    {"rgb_fp 0x1p127 0x1p126 0 0 0 0x1.fffffep127", "rgbe 255 128 0 255 0 0 255 255"},
};

struct Example {
  explicit Example(const char* text) {
    const char* at = std::strchr(text, ' ');
    type = ka_img_type_identify(std::string(text, at).c_str());
    const auto [bits, first, planes] = kLayouts[std::size_t(type)];
    for (int i = 0; *at != '\0'; ++i) {
      char* end = nullptr;
      if (i % planes == 0) pixels.emplace_back();
      pixels.back()[std::size_t(first + i % planes)] = std::strtof(at, &end);
      at = end;
    }
  }
  int type;
  std::vector<Pixel> pixels;
};

TEST(Convert, ExamplesGiveWhatWasWorkedOut) {
  for (const auto& [from, to] : kExamples) {
    SCOPED_TRACE(from);
    const Example given(from), expected(to);
    const int width = int(given.pixels.size());
    PlanarLine source(given.type, width, true), line(expected.type, width, true);
    line.fill(0);
    for (int x = 0; x < width; ++x) source.set(x, given.pixels[std::size_t(x)]);
    ka::img_convert(line.record(), source.record(), expected.type, given.type, kWeights, width);
    for (int x = 0; x < width; ++x) {
      EXPECT_EQ(line.at(x), expected.pixels[std::size_t(x)]) << x;
    }
  }
}

}  // namespace
