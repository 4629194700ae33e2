// Conversions worked out by hand, and colours with a shared exponent.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "convert_reference.h"
#include "imgcall.h"

namespace {

using test::Pixel;
using test::PlanarLine;

constexpr float kWeights[4] = {0.299F, 0.587F, 0.114F, 0.0F};
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

struct Row {
  const char* name;
  int source_type, type;
  std::vector<Pixel> source, expected;  // samples by slot: R, G, B, A
};
Row row(const char* name, int source_type, int type, const std::vector<Pixel>& source,
        const std::vector<Pixel>& expected) {
  return {name, source_type, type, source, expected};
}

const Row kRows[] = {
    row("FloatsAreClampedAndCut", IMG_TYPE_RGBA_FP, IMG_TYPE_RGBA, {{-0.5, 0.5, 1, 2}},
        {{0, 127, 255, 255}}),
    row("DeeperSamplesGetTheHighByte", IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, {{255, 1, 0, 128}},
        {{0xff00, 0x100, 0, 0x8000}}),
    row("AddedAlphaIsFull", IMG_TYPE_RGB, IMG_TYPE_RGBA, {{1, 2, 3, 0}}, {{1, 2, 3, 255}}),
    row("AddedAlphaIsFullIn16Bits", IMG_TYPE_RGB, IMG_TYPE_RGBA_16, {{1, 0, 0, 0}},
        {{256, 0, 0, 65535}}),
    row("AddedAlphaIsOne", IMG_TYPE_RGB, IMG_TYPE_RGBA_FP, {{255, 0, 51, 0}}, {{1, 0, 0.2F, 1}}),
    row("AScalarGoesToAllPlanes", IMG_TYPE_S, IMG_TYPE_RGBA, {{0, 0, 0, 9}}, {{9, 9, 9, 9}}),
    row("WhiteIn8BitsIsNotQuiteWhiteIn16", IMG_TYPE_RGB, IMG_TYPE_S_16, {{255, 255, 255, 0}},
        {{0, 0, 0, 65025}}),  // 255 * 255
    row("FloatLuminanceKeepsTheRangeOf8Bits", IMG_TYPE_RGB, IMG_TYPE_S_FP, {{255, 255, 255, 0}},
        {{0, 0, 0, 255}}),
    // 0.299 * 0x8000 + 0.587 * 0x4000 + 0.114 * 0x2000 = 20348.9 = 0x4f7c
    row("Luminance16GivesItsHighByte", IMG_TYPE_RGB_16, IMG_TYPE_S, {{0x8000, 0x4000, 0x2000, 0}},
        {{0, 0, 0, 0x4f}}),
    row("BrightLuminanceIsNotClamped", IMG_TYPE_RGB_FP, IMG_TYPE_S, {{2, 2, 2, 0}},
        {{0, 0, 0, 510 - 256}}),
    row("ColoursWithoutAlphaGiveLuminance", IMG_TYPE_RGB, IMG_TYPE_A, {{100, 200, 50, 0}},
        {{0, 0, 0, 153}}),  // 29.9 + 117.4 + 5.7
    row("AlphaIsNotLuminance", IMG_TYPE_RGBA, IMG_TYPE_A, {{9, 9, 9, 77}}, {{0, 0, 0, 77}}),
    row("DirectionsStayBelowTheEnd", IMG_TYPE_VTS, IMG_TYPE_RGB, {{32767, 65536 - 32767, 0, 0}},
        {{254, 1, 128, 0}}),
    row("OppositeDirectionsCancel", IMG_TYPE_VTA, IMG_TYPE_S, {{32767, 65536 - 32767, 0, 0}},
        {{0, 0, 0, 128}}),
    row("NormalsAreNotClamped", IMG_TYPE_N, IMG_TYPE_RGB, {{1, -1, 2, 0}},
        {{255, 1, 382 - 256, 0}}),  // 2 * 127 + 128 = 382
    row("DistancesDarken", IMG_TYPE_Z, IMG_TYPE_RGB,
        {{50, 0, 0, 0}, {0, 0, 0, 0}, {100, 0, 0, 0}, {-3, 0, 0, 0}, {60, 0, 0, 0}},
        {{127, 127, 127, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}, {102, 102, 102, 0}}),
    row("LabelBitsAreGathered", IMG_TYPE_TAG, IMG_TYPE_RGB,
        {{0, 0, 0, 0}, {7, 0, 0, 0}, {8, 0, 0, 0}},
        {{0, 0, 0, 0}, {128, 128, 128, 0}, {64, 0, 0, 0}}),
    row("LabelsAsScalars", IMG_TYPE_TAG, IMG_TYPE_S_16, {{1, 0, 0, 0}}, {{0, 0, 0, 0x8080}}),
    row("HalfCoverage", IMG_TYPE_COVERAGE, IMG_TYPE_RGBA, {{0.5, 0, 0, 0}, {1, 0, 0, 0}},
        {{128, 128, 128, 255}, {255, 255, 255, 255}}),
    row("BitsFillEveryPlane", IMG_TYPE_BIT, IMG_TYPE_RGBA_16, {{0, 0, 0, 1}, {}},
        {{0xff00, 0xff00, 0xff00, 0xff00}, {}}),
    row("TheNinthBitStandsInTheSecondByte", IMG_TYPE_BIT, IMG_TYPE_S_FP,
        {{}, {}, {}, {}, {}, {}, {}, {}, {0, 0, 0, 1}},
        {{}, {}, {}, {}, {}, {}, {}, {}, {0, 0, 0, 1}}),
    row("SharedExponentsAreDecoded", IMG_TYPE_RGBE, IMG_TYPE_RGBA_FP,
        {{128, 64, 32, 129}, {9, 9, 9, 0}},
        {{1.00390625, 0.50390625, 0.25390625, 1}, {0, 0, 0, 1}}),
    row("ExponentsAreShared", IMG_TYPE_RGB_FP, IMG_TYPE_RGBE, {{1, 0.5, 0.25, 0}},
        {{128, 64, 32, 129}}),
    // trunc(0.999 * 255) = 254; 254 / 255 * 256 = 254.99
    row("FloatScalarsAreSteppedFirst", IMG_TYPE_S_FP, IMG_TYPE_RGBE, {{0, 0, 0, 0.999}},
        {{254, 254, 254, 128}}),
};

TEST(Convert, ExamplesGiveWhatWasWorkedOut) {
  for (const auto& [name, source_type, type, pixels, expected] : kRows) {
    SCOPED_TRACE(name);
    const int width = int(pixels.size());
    PlanarLine source(source_type, width, true), line(type, width, true);
    line.fill(0);
    for (int x = 0; x < width; ++x) source.set(x, pixels[std::size_t(x)]);
    ka::img_convert(line.record(), source.record(), type, source_type, kWeights, width);
    for (int x = 0; x < width; ++x) EXPECT_EQ(line.at(x), expected[std::size_t(x)]) << x;
  }
}

TEST(Convert, WholeSamplesComeBackFromFloats) {
  for (const int type : {IMG_TYPE_S, IMG_TYPE_S_16}) {
    const int values = type == IMG_TYPE_S ? 256 : 65536;
    PlanarLine source(type, values, true), floats(IMG_TYPE_S_FP, values, true),
        back(type, values, true);
    for (int x = 0; x < values; ++x) source.set(x, {0, 0, 0, double(x)});
    ka::img_convert(floats.record(), source.record(), IMG_TYPE_S_FP, type, kWeights, values);
    ka::img_convert(back.record(), floats.record(), type, IMG_TYPE_S_FP, kWeights, values);
    EXPECT_TRUE(back.bytes() == source.bytes()) << values;
  }
}

TEST(SharedExponent, CodesTheEndsOfTheRange) {
  struct Case {
    float colour[3];
    Pixel expected;
  };
  const Case cases[] = {
      {{0, 0, 0}, {0, 0, 0, 0}},
      {{0.9e-32F, 0, 0}, {0, 0, 0, 0}},
      {{-1, -2, -3}, {0, 0, 0, 0}},
      {{kNan, 1, kNan}, {0, 128, 0, 129}},
      {{kInfinity, 0, 0}, {255, 0, 0, 255}},
      {{0x1.fffffep0F, 1, 0}, {255, 128, 0, 129}},  // rounded down
      {{1, -0x1p-7F, 0}, {128, 255, 0, 129}},       // floor(-1) = -1, its low byte
      {{0x1.fffffep126F, 0x1p126F, 0}, {255, 128, 0, 255}},
      {{0x1p127F, 0x1p126F, 0}, {255, 128, 0, 255}},  // the exponent ends before
      {{0, 0, 0x1.fffffep127F}, {0, 0, 255, 255}},
  };
  for (const Case& c : cases) {
    std::uint8_t r, g, b, e;
    ka_img_rgb_to_hdr(&r, &g, &b, &e, c.colour[0], c.colour[1], c.colour[2]);
    EXPECT_EQ((Pixel{double(r), double(g), double(b), double(e)}), c.expected) << c.colour[0];
  }
}

TEST(SharedExponent, DecodingUndoesEncodingToAStep) {
  for (int i = 0; i < 10000; ++i) {
    const auto e = std::uint8_t(23 + i % 233);  // 128.5 * 2^(23 - 136) is above 1e-32
    float r, g, b;
    ka_img_hdr_to_rgb(&r, &g, &b, std::uint8_t(128 + i % 128), std::uint8_t(i % 251), 0, e);
    EXPECT_EQ(r, std::ldexp(128.5F + float(i % 128), e - 136));
    std::uint8_t code[4];
    ka_img_rgb_to_hdr(&code[0], &code[1], &code[2], &code[3], r, g, b);
    EXPECT_EQ(code[0], 128 + i % 128);
    EXPECT_EQ(code[1], i % 251);
    EXPECT_EQ(code[3], e);
  }
}

}  // namespace
