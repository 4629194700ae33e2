// Targa images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;
using test::kOpening;

struct Header {
  int type, depth, width, height;
  int descriptor = 0, id_length = 0;
  int map_type = 0, first_entry = 0, map_length = 0, entry_bits = 0;
  int x = 0, y = 0;
};

std::string le16(int value) { return bytes({value & 255, value >> 8}); }

std::string file(const Header& h, std::initializer_list<int> rest) {
  return bytes({h.id_length, h.map_type, h.type}) + le16(h.first_entry) + le16(h.map_length) +
         bytes({h.entry_bits}) + le16(h.x) + le16(h.y) + le16(h.width) + le16(h.height) +
         bytes({h.depth, h.descriptor}) + bytes(rest);
}

// A line of grey, and a line of colours 5 and 6: blue, green, red.
std::string grey(std::initializer_list<int> levels) {
  return file({.type = 3, .depth = 8, .width = int(levels.size()), .height = 1}, levels);
}
std::string mapped(std::initializer_list<int> rest) {
  return file({.type = 1,
               .depth = 8,
               .width = 2,
               .height = 1,
               .map_type = 1,
               .first_entry = 5,
               .map_length = 2,
               .entry_bits = 24},
              rest);
}
std::string packed(int depth, int width, std::initializer_list<int> packets) {
  return file({.type = depth == 8 ? 11 : 10, .depth = depth, .width = width, .height = 1}, packets);
}

class TargaPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(TargaPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr int kTarga = IMG_FORMAT_TGA, kRgba = IMG_TYPE_RGBA;

const std::vector<test::Picture> kPlain = {
    {"Bits24",
     file({.type = 2, .depth = 24, .width = 1, .height = 2}, {1, 2, 3, 4, 5, 6}),
     kTarga,
     kRgba,
     {{{3}, {2}, {1}, {255}}, {{6}, {5}, {4}, {255}}}},
    {"Bits24TopFirst",
     file({.type = 2, .depth = 24, .width = 1, .height = 2, .descriptor = 0x20},
          {1, 2, 3, 4, 5, 6}),
     kTarga,
     kRgba,
     {{{6}, {5}, {4}, {255}}, {{3}, {2}, {1}, {255}}}},
    {"Bits32",
     file({.type = 2, .depth = 32, .width = 2, .height = 1, .descriptor = 8},
          {1, 2, 3, 4, 5, 6, 7, 0}),
     kTarga,
     kRgba,
     {{{3, 7}, {2, 6}, {1, 5}, {4, 0}}}},
    // bits 0-4 blue, 5-9 green, 10-14 red, each in the upper five bits of a byte
    {"Bits16",
     file({.type = 2, .depth = 16, .width = 4, .height = 1},
          {0x1f, 0x80, 0xe0, 0x03, 0x00, 0xfc, 0x41, 0x08}),
     kTarga,
     kRgba,
     {{{0, 0, 248, 16}, {0, 248, 0, 16}, {248, 0, 0, 8}, {255, 0, 255, 0}}}},
    {"Bits15AreOpaque",
     file({.type = 2, .depth = 15, .width = 2, .height = 1}, {0x1f, 0x80, 0x00, 0x7c}),
     kTarga,
     kRgba,
     {{{0, 248}, {0, 0}, {248, 0}, {255, 255}}}},
    {"Grey",
     grey({7, 0, 255}),
     kTarga,
     kRgba,
     {{{7, 0, 255}, {7, 0, 255}, {7, 0, 255}, {255, 255, 255}}}},
    {"PixelsBehindTheIdentification",
     file({.type = 3, .depth = 8, .width = 1, .height = 1, .id_length = 3}, {1, 2, 3, 4}),
     kTarga,
     kRgba,
     {{{4}, {4}, {4}, {255}}}},
};
INSTANTIATE_TEST_SUITE_P(Plain, TargaPicture, testing::ValuesIn(kPlain),
                         test::row_name<test::Picture>);

const std::vector<test::Picture> kMapped = {
    {"Entries24",
     mapped({1, 2, 3, 4, 5, 6, 6, 5}),
     kTarga,
     kRgba,
     {{{6, 3}, {5, 2}, {4, 1}, {255, 255}}}},
    {"Entries32BehindTheIdentification",
     file({.type = 1,
           .depth = 8,
           .width = 1,
           .height = 1,
           .id_length = 2,
           .map_type = 1,
           .map_length = 1,
           .entry_bits = 32},
          {9, 9, 1, 2, 3, 4, 0}),
     kTarga,
     kRgba,
     {{{3}, {2}, {1}, {4}}}},
    {"Packed",
     file({.type = 9,
           .depth = 8,
           .width = 4,
           .height = 1,
           .map_type = 1,
           .map_length = 2,
           .entry_bits = 24},
          {1, 2, 3, 4, 5, 6, 0x82, 1, 0, 0}),
     kTarga,
     kRgba,
     {{{6, 6, 6, 3}, {5, 5, 5, 2}, {4, 4, 4, 1}, {255, 255, 255, 255}}}},
    {"GreyWithAMap",
     file({.type = 3,
           .depth = 8,
           .width = 1,
           .height = 1,
           .map_type = 1,
           .map_length = 1,
           .entry_bits = 24},
          {1, 2, 3, 0}),
     kTarga,
     kRgba,
     {{{3}, {2}, {1}, {255}}}},
    {"GreyWithAMapOf16Bits",
     file({.type = 3,
           .depth = 8,
           .width = 1,
           .height = 1,
           .map_type = 1,
           .map_length = 1,
           .entry_bits = 16},
          {1, 2, 3}),
     kTarga,
     kRgba,
     {{{3}, {3}, {3}, {255}}}},
    {"ColoursWithAMap",
     file({.type = 2,
           .depth = 24,
           .width = 1,
           .height = 1,
           .map_type = 1,
           .map_length = 2,
           .entry_bits = 15},
          {9, 9, 9, 9, 1, 2, 3}),
     kTarga,
     kRgba,
     {{{3}, {2}, {1}, {255}}}},
    {"IndexesWithoutAMapAreLevels",
     file({.type = 1, .depth = 8, .width = 1, .height = 1, .entry_bits = 24}, {7}),
     kTarga,
     kRgba,
     {{{7}, {7}, {7}, {255}}}},
};
INSTANTIATE_TEST_SUITE_P(Mapped, TargaPicture, testing::ValuesIn(kMapped),
                         test::row_name<test::Picture>);

const std::vector<test::Picture> kPacked = {
    {"OneRun",
     packed(24, 4, {131, 1, 2, 3}),
     kTarga,
     kRgba,
     {{{3, 3, 3, 3}, {2, 2, 2, 2}, {1, 1, 1, 1}, {255, 255, 255, 255}}}},
    {"LiteralsAndRuns",
     packed(32, 4, {1, 1, 2, 3, 4, 5, 6, 7, 8, 129, 9, 10, 11, 12}),
     kTarga,
     kRgba,
     {{{3, 7, 11, 11}, {2, 6, 10, 10}, {1, 5, 9, 9}, {4, 8, 12, 12}}}},
    {"Bits16",
     packed(16, 2, {128, 0x1f, 0x80, 0, 0x1f, 0}),
     kTarga,
     kRgba,
     {{{0, 0}, {0, 0}, {248, 248}, {255, 0}}}},
    {"Grey",
     packed(8, 3, {129, 9, 0, 8}),
     kTarga,
     kRgba,
     {{{9, 9, 8}, {9, 9, 8}, {9, 9, 8}, {255, 255, 255}}}},
    {"BytesBehindTheLastLine",
     packed(8, 1, {0, 7, 200, 1}),
     kTarga,
     kRgba,
     {{{7}, {7}, {7}, {255}}}},
};
INSTANTIATE_TEST_SUITE_P(Packed, TargaPicture, testing::ValuesIn(kPacked),
                         test::row_name<test::Picture>);

class TargaRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(TargaRefusal, IsTold) { test::expect_refusal(GetParam()); }

// What no header of the format says, so that the file is somebody else's.
const std::vector<test::Refusal> kOtherFiles = {
    {"NoImage", file({.type = 0, .depth = 8, .width = 1, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"TypeFour", file({.type = 4, .depth = 8, .width = 1, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"TypeEight", file({.type = 8, .depth = 8, .width = 1, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"TypeTwelve", file({.type = 12, .depth = 8, .width = 1, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"OriginFarRight", file({.type = 3, .depth = 8, .width = 1, .height = 1, .x = 4096}, {1}),
     IMG_ERR_FORMAT},
    {"OriginFarUp", file({.type = 3, .depth = 8, .width = 1, .height = 1, .y = 4096}, {1}),
     IMG_ERR_FORMAT},
    {"NoWidth", file({.type = 3, .depth = 8, .width = 0, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"NoHeight", file({.type = 3, .depth = 8, .width = 1, .height = 0}, {1}), IMG_ERR_FORMAT},
    {"TooWide", file({.type = 3, .depth = 8, .width = 9999, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"TooHigh", file({.type = 3, .depth = 8, .width = 1, .height = 9999}, {1}), IMG_ERR_FORMAT},
    {"OddDepth", file({.type = 2, .depth = 12, .width = 1, .height = 1}, {1}), IMG_ERR_FORMAT},
    {"OddEntries",
     file({.type = 1, .depth = 8, .width = 1, .height = 1, .map_type = 1, .entry_bits = 8}, {1}),
     IMG_ERR_FORMAT},
    {"OddMap",
     file({.type = 1, .depth = 8, .width = 1, .height = 1, .map_type = 2, .entry_bits = 24}, {1}),
     IMG_ERR_FORMAT},
};
INSTANTIATE_TEST_SUITE_P(OtherFiles, TargaRefusal, testing::ValuesIn(kOtherFiles),
                         test::row_name<test::Refusal>);

const std::vector<test::Refusal> kRefusals = {
    {"OddDepthWithAMap",
     file({.type = 2, .depth = 12, .width = 1, .height = 1, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"NoDepth",
     file({.type = 1, .depth = 0, .width = 1, .height = 1, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"IndexesOf16Bits",
     file({.type = 1, .depth = 16, .width = 1, .height = 1, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"EntriesOf16Bits",
     file({.type = 9, .depth = 8, .width = 1, .height = 1, .map_type = 1, .entry_bits = 16}, {1}),
     IMG_ERR_SUBTYPE},
    {"NeitherMapNorEntries", file({.type = 1, .depth = 8, .width = 1, .height = 1}, {1}),
     IMG_ERR_SUBTYPE},
    {"MapEnds", mapped({1, 2, 3, 4, 5}), IMG_ERR_READ},
    {"IdentificationEnds",
     file({.type = 3, .depth = 8, .width = 1, .height = 1, .id_length = 9}, {1}), IMG_ERR_READ, 0},
    {"IndexBelowTheMap", mapped({1, 2, 3, 4, 5, 6, 6, 4}), IMG_ERR_CORRUPT, 0},
    {"IndexAboveTheMap", mapped({1, 2, 3, 4, 5, 6, 6, 7}), IMG_ERR_CORRUPT, 0},
    {"EmptyMap",
     file({.type = 1, .depth = 8, .width = 1, .height = 1, .map_type = 1, .entry_bits = 24}, {0}),
     IMG_ERR_CORRUPT, 0},
    {"SecondLineEnds", file({.type = 2, .depth = 24, .width = 1, .height = 2}, {1, 2, 3, 4, 5}),
     IMG_ERR_READ, 1},
    {"PixelsEnd", packed(24, 4, {131, 1, 2}), IMG_ERR_READ, 0},
    {"LiteralsEnd", packed(24, 4, {3, 1, 2, 3, 4, 5, 6, 7, 8, 9}), IMG_ERR_READ, 0},
    {"PacketsEnd", packed(24, 4, {128, 1, 2, 3}), IMG_ERR_READ, 0},
    {"RunPastTheLine", packed(24, 4, {132, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastTheLine", packed(8, 2, {2, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"RunOverTwoLines", file({.type = 11, .depth = 8, .width = 2, .height = 2}, {131, 1}),
     IMG_ERR_CORRUPT, 0},
};
INSTANTIATE_TEST_SUITE_P(Files, TargaRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

TEST(Targa, WritesTheseBytes) {
  const std::string header = bytes({0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 1, 0, 32, 0});
  const std::string pixels = bytes({5, 3, 1, 7, 6, 4, 2, 8});  // blue, green, red, alpha
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGBE}) {
    const test::Image image = test::make_picture(type, 2, {{{1, 2}, {3, 4}, {5, 6}, {7, 8}}});
    EXPECT_EQ(test::written(IMG_FORMAT_TGA, image.get()), header + pixels) << type;
  }
}

TEST(Targa, WritesTheBottomLineFirst) {
  const test::Image image =
      test::make_picture(IMG_TYPE_RGBA, 1, {{{1}, {0}, {0}, {0}}, {{2}, {0}, {0}, {0}}});
  EXPECT_EQ(test::written(IMG_FORMAT_TGA, image.get()).substr(18), bytes({0, 0, 1, 0, 0, 0, 2, 0}));
}

}  // namespace
