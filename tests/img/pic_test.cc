// Softimage PIC images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "pictures.h"

namespace {

using test::be, test::bytes, test::flat;

constexpr int kPic = IMG_FORMAT_PIC, kRgb = IMG_TYPE_RGB, kRgba = IMG_TYPE_RGBA;
constexpr int kVerbatim = 0, kRuns = 1, kMixed = 2;

std::string header(unsigned width, unsigned height, float aspect = 1, unsigned fields = 3) {
  std::string comment = "Written by Brannock libimg";
  comment.resize(80);
  const auto ratio = std::bit_cast<std::uint32_t>(aspect);
  return bytes({0x53, 0x80, 0xf6, 0x34, 0x40, 0x60, 0, 0}) + comment + "PICT" + be(2, width) +
         be(2, height) + be(4, ratio) + be(2, fields) + be(2, 0);
}

struct Group {
  int compression, mask, bits = 8;
};
std::string file(unsigned width, unsigned height, const std::vector<Group>& groups,
                 std::initializer_list<int> pixels) {
  std::string text = header(width, height);
  for (const Group& group : groups) {
    text += bytes({&group != &groups.back(), group.bits, group.compression, group.mask});
  }
  return text + bytes(pixels);
}

// A verbatim group of colours, then some without channels.
std::string chain(std::size_t count) {
  std::vector<Group> groups(count, Group{kVerbatim, 0});
  groups[0].mask = 0xe0;
  return file(1, 1, groups, {1, 2, 3});
}
std::string mixed(unsigned width, std::initializer_list<int> pixels) {
  return file(width, 1, {{kMixed, 0xe0}}, pixels);
}
std::string runs(std::initializer_list<int> pixels) { return file(3, 1, {{kRuns, 0xe0}}, pixels); }

test::Picture pic(const char* name, const std::string& file, int type, const test::Lines& lines) {
  return {name, file, kPic, type, lines};
}

const std::vector<test::Picture> kPictures = {
    pic("RunsOfEachLine",
        file(2, 2, {{kRuns, 0xe0}, {kRuns, 0x10}},
             {2, 1, 2, 3, 2, 4, 1, 5, 6, 7, 1, 8, 9, 10, 2, 11}),
        kRgba, {{{5, 8}, {6, 9}, {7, 10}, {11, 11}}, {{1, 1}, {2, 2}, {3, 3}, {4, 4}}}),
    pic("Mixed",
        file(5, 1, {{kMixed, 0xe0}, {kMixed, 0x10}},
             {1, 1, 2, 3, 4, 5, 6, 130, 7, 8, 9, 4, 1, 2, 3, 4, 5}),
        kRgba, {{{1, 4, 7, 7, 7}, {2, 5, 8, 8, 8}, {3, 6, 9, 9, 9}, {1, 2, 3, 4, 5}}}),
    pic("RunOf300", mixed(300, {128, 1, 44, 1, 2, 3}), kRgb, {flat(300, {1, 2, 3})}),
    pic("RunOf128", mixed(128, {255, 4, 5, 6}), kRgb, {flat(128, {4, 5, 6})}),
    pic("EveryChannelOnItsOwn",
        file(2, 1, {{kMixed, 0x10}, {kMixed, 0x20}, {kMixed, 0x40}, {kMixed, 0x80}},
             {129, 4, 129, 3, 129, 2, 1, 1, 9}),
        kRgba, {{{1, 9}, {2, 2}, {3, 3}, {4, 4}}}),
    pic("FirstCompressionGoesForAll",
        file(2, 1, {{kRuns, 0xe0}, {kVerbatim, 0x10}}, {2, 1, 2, 3, 2, 4}), kRgba,
        {{{1, 1}, {2, 2}, {3, 3}, {4, 4}}}),
    // descriptors without channels are not counted when the pixels are looked for
    pic("ChainUpToByte256", chain(38), kRgb, {{{1}, {8}, {0}}}),
};
TEST(Pic, PicturesAreRead) { test::expect_pictures(kPictures); }

const std::vector<test::Refusal> kRefusals = {
    {"OtherMagic", bytes({0x53, 0x80, 0xf6, 0x35}) + header(1, 1).substr(4), IMG_ERR_FORMAT},
    {"SixteenBits", file(1, 1, {{kMixed, 0xe0, 16}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"OtherCompression", file(1, 1, {{3, 0xe0}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"NoBlue", file(1, 1, {{kMixed, 0xd0}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"FiveGroups", file(1, 1, {{0, 0xe0}, {0, 16}, {0, 128}, {0, 64}, {0, 32}}, {1, 2, 3, 4}),
     IMG_ERR_SUBTYPE},
    {"ChainPastByte256", chain(39), IMG_ERR_SUBTYPE},
    {"LiteralsEnd", mixed(3, {2, 1, 2, 3, 4, 5, 6, 7, 8}), IMG_ERR_READ, 0},
    {"LiteralsPastTheLine", mixed(1, {1, 1, 2, 3, 4, 5, 6, 7}), IMG_ERR_CORRUPT, 0},
    {"RunPastTheLine", mixed(3, {131, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"WideRunPastTheLine", mixed(3, {128, 255, 255, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"WideCountOfNothing", mixed(3, {128, 0, 0, 1, 2, 3, 130, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"PureRunOfNothing", runs({0, 1, 2, 3, 3, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", mixed(3, {130, 1, 2, 3, 130, 1, 2, 3}), IMG_ERR_READ, 1},
};
TEST(Pic, RefusalsAreTold) { test::expect_refusals(kRefusals); }

// The top line first, of each the colours, then alpha.
TEST(Pic, WritesTheseBytes) {
  EXPECT_EQ(test::written(kPic, kRgba,
                          {{{1, 1, 1, 2}, {3, 3, 3, 4}, {5, 5, 5, 6}, {0, 7, 7, 7}},
                           {{1, 1, 1, 1}, {2, 2, 3, 3}, {0, 0, 0, 0}, {8, 9, 8, 9}}}),
            file(4, 2, {{kMixed, 0xe0}, {kMixed, 0x10}},
                 {3,   1, 2, 0, 1, 2, 0, 1, 3, 0, 1,   3, 0, 3, 8, 9, 8, 9,  //
                  130, 1, 3, 5, 0, 2, 4, 6, 0, 0, 130, 7}));
  EXPECT_EQ(test::written(kPic, kRgba, {flat(300, {0, 0, 0, 0})}),
            file(300, 1, {{kMixed, 0xe0}, {kMixed, 0x10}}, {128, 1, 44, 0, 0, 0, 128, 1, 44, 0}));
}

TEST(Pic, HeaderHasTheSettings) {
  const struct {
    float aspect, fields, written_aspect;
    unsigned written_fields;
  } rows[] = {{0, 0, 1, 3},  {1.25F, 1, 1.25F, 1}, {-2, 2.9F, -2, 2},  {1, 4, 1, 0},
              {1, -1, 1, 3}, {1, NAN, 1, 0},       {1, INFINITY, 1, 0}};
  for (const auto& [aspect, fields, written_aspect, written_fields] : rows) {
    test::NewFile out(kPic, kRgba, 1, 1);
    out->aspect = aspect;
    out->parameters[1] = std::bit_cast<std::uint32_t>(fields);
    ASSERT_TRUE(out.write_line());
    ASSERT_TRUE(out.close());
    EXPECT_EQ(out.contents().substr(0, 104), header(1, 1, written_aspect, written_fields));
    EXPECT_EQ(test::OpenFile(out.contents())->aspect, aspect > 0 ? aspect : 1);
  }
}

}  // namespace
