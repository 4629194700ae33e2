// Targa images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;

struct Header {
  int type, depth = 8, width = 1, height = 1;
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

// A pixel behind a map of some entries.
std::string mapped(int type, int map_length, int entry_bits, std::initializer_list<int> rest) {
  return file({.type = type, .map_type = 1, .map_length = map_length, .entry_bits = entry_bits},
              rest);
}
// A line of the colours 5 and 6: blue, green, red.
std::string from_entry_5(std::initializer_list<int> rest) {
  return file(
      {.type = 1, .width = 2, .map_type = 1, .first_entry = 5, .map_length = 2, .entry_bits = 24},
      rest);
}
std::string packed(int depth, int width, std::initializer_list<int> packets) {
  return file({.type = depth == 8 ? 11 : 10, .depth = depth, .width = width}, packets);
}

class TargaPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(TargaPicture, IsRead) { test::expect_picture(GetParam()); }

test::Picture targa(const char* name, const std::string& file, const test::Lines& lines) {
  return {name, file, IMG_FORMAT_TGA, IMG_TYPE_RGBA, lines};
}

const test::Picture kPictures[] = {
    targa("Bits24", file({.type = 2, .depth = 24, .height = 2}, {1, 2, 3, 4, 5, 6}),
          {{{3}, {2}, {1}, {255}}, {{6}, {5}, {4}, {255}}}),
    targa("Bits24TopFirst",
          file({.type = 2, .depth = 24, .height = 2, .descriptor = 0x20}, {1, 2, 3, 4, 5, 6}),
          {{{6}, {5}, {4}, {255}}, {{3}, {2}, {1}, {255}}}),
    targa("Bits32", file({.type = 2, .depth = 32, .width = 2}, {1, 2, 3, 4, 5, 6, 7, 0}),
          {{{3, 7}, {2, 6}, {1, 5}, {4, 0}}}),
    // bits 0-4 blue, 5-9 green, 10-14 red, each in the upper five bits of a byte
    targa("Bits16",
          file({.type = 2, .depth = 16, .width = 4},
               {0x1f, 0x80, 0xe0, 0x03, 0x00, 0xfc, 0x41, 0x08}),
          {{{0, 0, 248, 16}, {0, 248, 0, 16}, {248, 0, 0, 8}, {255, 0, 255, 0}}}),
    targa("Grey", file({.type = 3, .width = 3}, {7, 0, 255}),
          {{{7, 0, 255}, {7, 0, 255}, {7, 0, 255}, {255, 255, 255}}}),
    targa("PixelsBehindTheIdentification", file({.type = 3, .id_length = 3}, {1, 2, 3, 4}),
          {{{4}, {4}, {4}, {255}}}),
    targa("MapOf24Bits", from_entry_5({1, 2, 3, 4, 5, 6, 6, 5}),
          {{{6, 3}, {5, 2}, {4, 1}, {255, 255}}}),
    targa("MapAndPackets", mapped(9, 2, 24, {1, 2, 3, 4, 5, 6, 0x80, 1}), {{{6}, {5}, {4}, {255}}}),
    targa("GreyWithAMap", mapped(3, 1, 24, {1, 2, 3, 0}), {{{3}, {2}, {1}, {255}}}),
    targa("GreyWithAMapOf16Bits", mapped(3, 1, 16, {1, 2, 3}), {{{3}, {3}, {3}, {255}}}),
    targa("IndexesWithoutAMapAreLevels", file({.type = 1, .entry_bits = 24}, {7}),
          {{{7}, {7}, {7}, {255}}}),
    targa("PackedRunsAndLiterals", packed(32, 4, {1, 1, 2, 3, 4, 5, 6, 7, 8, 129, 9, 10, 11, 12}),
          {{{3, 7, 11, 11}, {2, 6, 10, 10}, {1, 5, 9, 9}, {4, 8, 12, 12}}}),
    targa("PackedBits16", packed(16, 2, {128, 0x1f, 0x80, 0, 0x1f, 0}),
          {{{0, 0}, {0, 0}, {248, 248}, {255, 0}}}),
    targa("PackedGreyAndBytesBehindIt", packed(8, 3, {129, 9, 0, 8, 200, 1}),
          {{{9, 9, 8}, {9, 9, 8}, {9, 9, 8}, {255, 255, 255}}}),
};
INSTANTIATE_TEST_SUITE_P(Files, TargaPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

class TargaRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(TargaRefusal, IsTold) { test::expect_refusal(GetParam()); }

const test::Refusal kRefusals[] = {
    // what no header of the format says, so that the file is somebody else's
    {"NoImage", file({.type = 0}, {1}), IMG_ERR_FORMAT},
    {"TypeEight", file({.type = 8}, {1}), IMG_ERR_FORMAT},
    {"OriginFarRight", file({.type = 3, .x = 4096}, {1}), IMG_ERR_FORMAT},
    {"NoWidth", file({.type = 3, .width = 0}, {1}), IMG_ERR_FORMAT},
    {"TooWide", file({.type = 3, .width = 9999}, {1}), IMG_ERR_FORMAT},
    {"OddDepth", file({.type = 2, .depth = 12}, {1}), IMG_ERR_FORMAT},
    {"OddEntries", mapped(1, 0, 8, {1}), IMG_ERR_FORMAT},
    {"IndexesOf16Bits", file({.type = 1, .depth = 16, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"EntriesOf16Bits", mapped(9, 0, 16, {1}), IMG_ERR_SUBTYPE},
    {"NeitherMapNorEntries", file({.type = 1}, {1}), IMG_ERR_SUBTYPE},
    {"IdentificationEnds", file({.type = 3, .id_length = 9}, {1}), IMG_ERR_READ, 0},
    {"IndexBelowTheMap", from_entry_5({1, 2, 3, 4, 5, 6, 6, 4}), IMG_ERR_CORRUPT, 0},
    {"IndexAboveTheMap", from_entry_5({1, 2, 3, 4, 5, 6, 6, 7}), IMG_ERR_CORRUPT, 0},
    {"EmptyMap", mapped(1, 0, 24, {0}), IMG_ERR_CORRUPT, 0},
    {"SecondLineEnds", file({.type = 2, .depth = 24, .height = 2}, {1, 2, 3, 4, 5}), IMG_ERR_READ,
     1},
    {"RunPastTheLine", packed(24, 4, {132, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"RunOverTwoLines", file({.type = 11, .width = 2, .height = 2}, {131, 1}), IMG_ERR_CORRUPT, 0},
};
INSTANTIATE_TEST_SUITE_P(Files, TargaRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

// The bottom line first; blue, green, red, alpha.
TEST(Targa, WritesTheseBytes) {
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGBE}) {
    const test::Image image =
        test::make_picture(type, 1, {{{1}, {3}, {5}, {7}}, {{2}, {4}, {6}, {8}}});
    EXPECT_EQ(test::written(IMG_FORMAT_TGA, image.get()),
              bytes({0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 32, 0}) +
                  bytes({5, 3, 1, 7, 6, 4, 2, 8}));
  }
}

}  // namespace
