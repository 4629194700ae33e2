// Conversions between pixel types, one line at a time, against the rules.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <cmath>
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

const char* name_of(int type) { return type == IMG_TYPE_A_FP ? "a_fp" : ka_img_type_name(type); }

constexpr std::uint32_t kWhole[] = {0,      1,      2,      127,    128,        254,
                                    255,    256,    0x7fff, 0x8000, 0x8001,     0xff00,
                                    0xfffe, 0xffff, 7,      31,     0xffffffff, 0x80000000};
constexpr float kFloats[] = {0.0F,     -0.0F,           1.0F,      0x1.fffffep-1F, 0x1.000002p0F,
                             0.5F,     -0.5F,           2.0F,      -1.0F,          1e-45F,
                             1e-38F,   1e-33F,          1e-32F,    100.0F,         50.0F,
                             1e5F,     -1e5F,           3e9F,      -3e9F,          1e30F,
                             3.4e38F,  -3.4e38F,        kInfinity, -kInfinity,     kNan,
                             1.0F / 3, 7 / 255.F,       8e4F / 7,  -1e-30F,        127.5F,
                             0x1p126F, 0x1.fffffep126F, 0x1p127F};

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

}  // namespace
