// Targa images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes, test::flat, test::le;

constexpr int kTarga = IMG_FORMAT_TGA, kRgba = IMG_TYPE_RGBA;

// One pixel of 8 bits if nothing else is said.
struct Header {
  int type, depth = 8, width = 1, height = 1;
  int descriptor = 0, id_length = 0;
  int map_type = 0, first_entry = 0, map_length = 0, entry_bits = 0;
  int x = 0, y = 0;
};

std::string file(const Header& h, std::initializer_list<int> rest) {
  return bytes({h.id_length, h.map_type, h.type}) + le(2, h.first_entry) + le(2, h.map_length) +
         bytes({h.entry_bits}) + le(2, h.x) + le(2, h.y) + le(2, h.width) + le(2, h.height) +
         bytes({h.depth, h.descriptor}) + bytes(rest);
}

// A line of colours 5 and 6: blue, green, red.
std::string mapped(std::initializer_list<int> rest) {
  return file(
      {.type = 1, .width = 2, .map_type = 1, .first_entry = 5, .map_length = 2, .entry_bits = 24},
      rest);
}
std::string packed(int depth, int width, std::initializer_list<int> packets) {
  return file({.type = depth == 8 ? 11 : 10, .depth = depth, .width = width}, packets);
}
test::Lines grey(const std::vector<std::uint32_t>& levels) {
  return {{levels, levels, levels, std::vector<std::uint32_t>(levels.size(), 255)}};
}
test::Shown shown(const char* name, const std::string& file, const test::Lines& lines) {
  return {name, file, lines};
}

const std::vector<test::Shown> kPlain = {
    shown("Bits24", file({.type = 2, .depth = 24, .height = 2}, {1, 2, 3, 4, 5, 6}),
          {{{3}, {2}, {1}, {255}}, {{6}, {5}, {4}, {255}}}),
    shown("Bits24TopFirst",
          file({.type = 2, .depth = 24, .height = 2, .descriptor = 0x20}, {1, 2, 3, 4, 5, 6}),
          {{{6}, {5}, {4}, {255}}, {{3}, {2}, {1}, {255}}}),
    shown("Bits32",
          file({.type = 2, .depth = 32, .width = 2, .descriptor = 8}, {1, 2, 3, 4, 5, 6, 7, 0}),
          {{{3, 7}, {2, 6}, {1, 5}, {4, 0}}}),
    // bits 0-4 blue, 5-9 green, 10-14 red, each in the upper five bits of a byte
    shown("Bits16",
          file({.type = 2, .depth = 16, .width = 4},
               {0x1f, 0x80, 0xe0, 0x03, 0x00, 0xfc, 0x41, 0x08}),
          {{{0, 0, 248, 16}, {0, 248, 0, 16}, {248, 0, 0, 8}, {255, 0, 255, 0}}}),
    shown("Bits15AreOpaque", file({.type = 2, .depth = 15, .width = 2}, {0x1f, 0x80, 0x00, 0x7c}),
          {{{0, 248}, {0, 0}, {248, 0}, {255, 255}}}),
    shown("Grey", file({.type = 3, .width = 3}, {7, 0, 255}), grey({7, 0, 255})),
    shown("PixelsBehindTheIdentification", file({.type = 3, .id_length = 3}, {1, 2, 3, 4}),
          grey({4})),
};
const std::vector<test::Shown> kMapped = {
    shown("Entries24", mapped({1, 2, 3, 4, 5, 6, 6, 5}), {{{6, 3}, {5, 2}, {4, 1}, {255, 255}}}),
    shown("Entries32BehindTheIdentification",
          file({.type = 1, .id_length = 2, .map_type = 1, .map_length = 1, .entry_bits = 32},
               {9, 9, 1, 2, 3, 4, 0}),
          {flat(1, {3, 2, 1, 4})}),
    shown("Packed",
          file({.type = 9, .width = 4, .map_type = 1, .map_length = 2, .entry_bits = 24},
               {1, 2, 3, 4, 5, 6, 0x82, 1, 0, 0}),
          {{{6, 6, 6, 3}, {5, 5, 5, 2}, {4, 4, 4, 1}, {255, 255, 255, 255}}}),
    shown("GreyWithAMap",
          file({.type = 3, .map_type = 1, .map_length = 1, .entry_bits = 24}, {1, 2, 3, 0}),
          {flat(1, {3, 2, 1, 255})}),
    shown("GreyWithAMapOf16Bits",
          file({.type = 3, .map_type = 1, .map_length = 1, .entry_bits = 16}, {1, 2, 3}),
          grey({3})),
    shown("ColoursWithAMap",
          file({.type = 2, .depth = 24, .map_type = 1, .map_length = 2, .entry_bits = 15},
               {9, 9, 9, 9, 1, 2, 3}),
          {flat(1, {3, 2, 1, 255})}),
    shown("IndexesWithoutAMapAreLevels", file({.type = 1, .entry_bits = 24}, {7}), grey({7})),
};
const std::vector<test::Shown> kPacked = {
    shown("OneRun", packed(24, 4, {131, 1, 2, 3}), {flat(4, {3, 2, 1, 255})}),
    shown("LiteralsAndRuns", packed(32, 4, {1, 1, 2, 3, 4, 5, 6, 7, 8, 129, 9, 10, 11, 12}),
          {{{3, 7, 11, 11}, {2, 6, 10, 10}, {1, 5, 9, 9}, {4, 8, 12, 12}}}),
    shown("Bits16", packed(16, 2, {128, 0x1f, 0x80, 0, 0x1f, 0}),
          {{{0, 0}, {0, 0}, {248, 248}, {255, 0}}}),
    shown("Grey", packed(8, 3, {129, 9, 0, 8}), grey({9, 9, 8})),
    shown("BytesBehindTheLastLine", packed(8, 1, {0, 7, 200, 1}), grey({7})),
};
TEST(Targa, PicturesAreRead) {
  for (const auto& shown : {kPlain, kMapped, kPacked}) test::expect_pictures(kTarga, kRgba, shown);
}

// What no header of the format says, so that the file is somebody else's.
const std::vector<test::Refusal> kOtherFiles = {
    {"NoImage", file({.type = 0}, {1}), IMG_ERR_FORMAT},
    {"TypeFour", file({.type = 4}, {1}), IMG_ERR_FORMAT},
    {"TypeEight", file({.type = 8}, {1}), IMG_ERR_FORMAT},
    {"TypeTwelve", file({.type = 12}, {1}), IMG_ERR_FORMAT},
    {"OriginFarRight", file({.type = 3, .x = 4096}, {1}), IMG_ERR_FORMAT},
    {"OriginFarUp", file({.type = 3, .y = 4096}, {1}), IMG_ERR_FORMAT},
    {"NoWidth", file({.type = 3, .width = 0}, {1}), IMG_ERR_FORMAT},
    {"NoHeight", file({.type = 3, .height = 0}, {1}), IMG_ERR_FORMAT},
    {"TooWide", file({.type = 3, .width = 9999}, {1}), IMG_ERR_FORMAT},
    {"TooHigh", file({.type = 3, .height = 9999}, {1}), IMG_ERR_FORMAT},
    {"OddDepth", file({.type = 2, .depth = 12}, {1}), IMG_ERR_FORMAT},
    {"OddEntries", file({.type = 1, .map_type = 1, .entry_bits = 8}, {1}), IMG_ERR_FORMAT},
    {"OddMap", file({.type = 1, .map_type = 2, .entry_bits = 24}, {1}), IMG_ERR_FORMAT},
};
const std::vector<test::Refusal> kRefusals = {
    {"OddDepthWithAMap", file({.type = 2, .depth = 12, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"NoDepth", file({.type = 1, .depth = 0, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"IndexesOf16Bits", file({.type = 1, .depth = 16, .map_type = 1, .entry_bits = 24}, {1}),
     IMG_ERR_SUBTYPE},
    {"EntriesOf16Bits", file({.type = 9, .map_type = 1, .entry_bits = 16}, {1}), IMG_ERR_SUBTYPE},
    {"NeitherMapNorEntries", file({.type = 1}, {1}), IMG_ERR_SUBTYPE},
    {"MapEnds", mapped({1, 2, 3, 4, 5}), IMG_ERR_READ},
    {"IdentificationEnds", file({.type = 3, .id_length = 9}, {1}), IMG_ERR_READ, 0},
    {"IndexBelowTheMap", mapped({1, 2, 3, 4, 5, 6, 6, 4}), IMG_ERR_CORRUPT, 0},
    {"IndexAboveTheMap", mapped({1, 2, 3, 4, 5, 6, 6, 7}), IMG_ERR_CORRUPT, 0},
    {"EmptyMap", file({.type = 1, .map_type = 1, .entry_bits = 24}, {0}), IMG_ERR_CORRUPT, 0},
    {"SecondLineEnds", file({.type = 2, .depth = 24, .height = 2}, {1, 2, 3, 4, 5}), IMG_ERR_READ,
     1},
    {"PixelsEnd", packed(24, 4, {131, 1, 2}), IMG_ERR_READ, 0},
    {"LiteralsEnd", packed(24, 4, {3, 1, 2, 3, 4, 5, 6, 7, 8, 9}), IMG_ERR_READ, 0},
    {"PacketsEnd", packed(24, 4, {128, 1, 2, 3}), IMG_ERR_READ, 0},
    {"RunPastTheLine", packed(24, 4, {132, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastTheLine", packed(8, 2, {2, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"RunOverTwoLines", file({.type = 11, .width = 2, .height = 2}, {131, 1}), IMG_ERR_CORRUPT, 0},
};
TEST(Targa, RefusalsAreTold) {
  for (const auto& refusals : {kOtherFiles, kRefusals}) test::expect_refusals(refusals);
}

// The bottom line first.
TEST(Targa, WritesTheseBytes) {
  const std::string header = bytes({0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2, 0, 32, 0});
  const test::Lines lines = {{{1, 2}, {3, 4}, {5, 6}, {7, 8}}, flat(2, {9, 10, 11, 12})};
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGBE}) {
    // blue, green, red, alpha
    EXPECT_EQ(test::written(kTarga, type, lines),
              header + bytes({5, 3, 1, 7, 6, 4, 2, 8, 11, 10, 9, 12, 11, 10, 9, 12}))
        << type;
  }
}

}  // namespace
