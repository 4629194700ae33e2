// Alias pix images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::be;
using test::bytes;
using test::flat;

constexpr int kAlias = IMG_FORMAT_ALIAS, kRgb = IMG_TYPE_RGB;

std::string header(int width, int height, int x, int y, int depth) {
  return be(2, width) + be(2, height) + be(2, x) + be(2, y) + be(2, depth);
}
// A packet: count, blue, green, red.
std::string file(int width, int height, std::initializer_list<int> packets) {
  return header(width, height, 0, 0, 24) + bytes(packets);
}
const std::string kPixel = bytes({1, 1, 2, 3});

const std::vector<test::Shown> kPictures = {
    {"Packets", file(3, 1, {2, 1, 2, 3, 1, 4, 5, 6}), {{{3, 3, 6}, {2, 2, 5}, {1, 1, 4}}}},
    {"TopLineFirst", file(1, 2, {1, 1, 2, 3, 1, 4, 5, 6}), {{{6}, {5}, {4}}, {{3}, {2}, {1}}}},
    {"Bits32", header(1, 1, 4095, 4095, 32) + kPixel, {{{3}, {2}, {1}}}},
    {"BytesBehindTheLastLine", file(1, 1, {1, 1, 2, 3, 0, 9}), {{{3}, {2}, {1}}}},
    {"TheLongestPacket", file(255, 1, {255, 1, 2, 3}), {flat(255, {3, 2, 1})}},
};
TEST(Alias, PicturesAreRead) { test::expect_pictures(kAlias, kRgb, kPictures); }

const std::vector<test::Refusal> kRefusals = {
    {"NoWidth", header(0, 1, 0, 0, 24) + kPixel, IMG_ERR_FORMAT},
    {"TooWide", header(4096, 1, 0, 0, 24) + kPixel, IMG_ERR_FORMAT},
    {"OriginFarRight", header(1, 1, 4096, 0, 24) + kPixel, IMG_ERR_FORMAT},
    {"Grey", header(1, 1, 0, 0, 8) + kPixel, IMG_ERR_FORMAT},
    {"HeaderEnds", header(1, 1, 0, 0, 24).substr(0, 9), IMG_ERR_FORMAT},
    {"NoPackets", file(1, 1, {}), IMG_ERR_CORRUPT, 0},
    {"LastLineLacksAPacket", file(2, 2, {2, 1, 2, 3, 1, 1, 2, 3}), IMG_ERR_CORRUPT, 1},
    {"FileEndsInsideAPacket", file(3, 1, {2, 1, 2, 3, 1, 4, 5}), IMG_ERR_CORRUPT, 0},
    {"PacketPastTheLineEnd", file(2, 2, {3, 1, 2, 3, 1, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"NoPixelsInside", file(2, 1, {1, 1, 2, 3, 0, 1, 2, 3, 1, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
};
TEST(Alias, RefusalsAreTold) { test::expect_refusals(kRefusals); }

TEST(Alias, WritesRunsOfEqualPixels) {
  EXPECT_EQ(test::written(kAlias, kRgb, {flat(300, {7, 8, 9})}),
            file(300, 1, {255, 9, 8, 7, 45, 9, 8, 7}));
  // each of the samples alone ends a run, and so does the line; the top line comes first
  EXPECT_EQ(
      test::written(kAlias, kRgb,
                    {{{1, 1, 1, 1, 2}, {3, 3, 3, 4, 4}, {5, 5, 6, 6, 6}}, flat(5, {1, 3, 5})}),
      file(5, 2, {5, 5, 3, 1, 2, 5, 3, 1, 1, 6, 3, 1, 1, 6, 4, 1, 1, 6, 4, 2}));
}

}  // namespace
