// Softimage PIC images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "pictures.h"

namespace {

using test::bytes;
using test::kOpening;

constexpr std::size_t kHeaderBytes = 104;

std::string be16(int value) { return bytes({value >> 8, value & 255}); }
std::string be32(std::uint32_t value) { return be16(int(value >> 16)) + be16(int(value & 65535)); }

struct Header {
  int width, height;
  float aspect = 1;
  int fields = 3;
};
std::string header(const Header& h) {
  std::string comment = "Written by Brannock libimg";
  comment.resize(80);
  return bytes({0x53, 0x80, 0xf6, 0x34, 0x40, 0x60, 0, 0}) + comment + "PICT" + be16(h.width) +
         be16(h.height) + be32(std::bit_cast<std::uint32_t>(h.aspect)) + be16(h.fields) + be16(0);
}

struct Group {
  int compression, mask, bits = 8;
};
std::string groups(std::initializer_list<Group> list) {
  std::string text;
  for (const Group& group : list) {
    const bool is_last = text.size() + 4 == 4 * list.size();
    text += bytes({is_last ? 0 : 1, group.bits, group.compression, group.mask});
  }
  return text;
}

std::string file(const Header& h, std::initializer_list<Group> list,
                 std::initializer_list<int> pixels) {
  return header(h) + groups(list) + bytes(pixels);
}

class PicPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(PicPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr int kPic = IMG_FORMAT_PIC, kRgb = IMG_TYPE_RGB, kRgba = IMG_TYPE_RGBA;
constexpr int kVerbatim = 0, kRuns = 1, kMixed = 2;

// A plane of equal samples.
std::vector<std::uint32_t> plane(std::size_t count, std::uint32_t value) {
  return std::vector<std::uint32_t>(count, value);
}

const std::vector<test::Picture> kPictures = {
    {"Verbatim",
     file({2, 2}, {{kVerbatim, 0xe0}}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}),
     kPic,
     kRgb,
     {{{7, 10}, {8, 11}, {9, 12}}, {{1, 4}, {2, 5}, {3, 6}}}},
    {"VerbatimInOneGroup",
     file({2, 1}, {{kVerbatim, 0xf0}}, {1, 2, 3, 4, 5, 6, 7, 8}),
     kPic,
     kRgba,
     {{{1, 5}, {2, 6}, {3, 7}, {4, 8}}}},
    {"Runs",
     file({4, 1}, {{kRuns, 0xe0}}, {3, 1, 2, 3, 1, 4, 5, 6}),
     kPic,
     kRgb,
     {{{1, 1, 1, 4}, {2, 2, 2, 5}, {3, 3, 3, 6}}}},
    {"RunsOfEachLine",
     file({2, 2}, {{kRuns, 0xe0}, {kRuns, 0x10}},
          {2, 1, 2, 3, 2, 4, 1, 5, 6, 7, 1, 8, 9, 10, 2, 11}),
     kPic,
     kRgba,
     {{{5, 8}, {6, 9}, {7, 10}, {11, 11}}, {{1, 1}, {2, 2}, {3, 3}, {4, 4}}}},
    {"Mixed",
     file({5, 1}, {{kMixed, 0xe0}, {kMixed, 0x10}},
          {1, 1, 2, 3, 4, 5, 6, 130, 7, 8, 9, 4, 1, 2, 3, 4, 5}),
     kPic,
     kRgba,
     {{{1, 4, 7, 7, 7}, {2, 5, 8, 8, 8}, {3, 6, 9, 9, 9}, {1, 2, 3, 4, 5}}}},
    {"MixedRunsOf1And128And300",
     file({429, 1}, {{kMixed, 0xe0}}, {128, 1, 44, 1, 2, 3, 255, 4, 5, 6, 128, 0, 1, 7, 8, 9}),
     kPic, kRgb,
     [] {
       test::Planes planes;
       for (std::uint32_t c = 0; c < 3; ++c) {
         planes.push_back(plane(300, 1 + c));
         planes[c].insert(planes[c].end(), 128, 4 + c);
         planes[c].push_back(7 + c);
       }
       return test::Lines{planes};
     }()},
    {"EveryChannelOnItsOwn",
     file({2, 1}, {{kMixed, 0x10}, {kMixed, 0x20}, {kMixed, 0x40}, {kMixed, 0x80}},
          {129, 4, 129, 3, 129, 2, 1, 1, 9}),
     kPic,
     kRgba,
     {{{1, 9}, {2, 2}, {3, 3}, {4, 4}}}},
    {"TwoChannelsTogether",
     file({2, 1}, {{kVerbatim, 0xa0}, {kVerbatim, 0x50}}, {1, 3, 5, 7, 2, 4, 6, 8}),
     kPic,
     kRgba,
     {{{1, 5}, {2, 6}, {3, 7}, {4, 8}}}},
    {"FirstCompressionGoesForAll",
     file({2, 1}, {{kRuns, 0xe0}, {kVerbatim, 0x10}}, {2, 1, 2, 3, 2, 4}),
     kPic,
     kRgba,
     {{{1, 1}, {2, 2}, {3, 3}, {4, 4}}}},
    {"NoLine", file({3, 0}, {{kMixed, 0xe0}}, {}), kPic, kRgb, {}},
};
INSTANTIATE_TEST_SUITE_P(Files, PicPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

// Descriptors without channels are not counted when the pixels are looked for.
TEST(Pic, GroupsWithoutChannelsAreLeftOut) {
  test::expect_picture({"",
                        header({1, 1}) + groups({{kMixed, 0xe0}}).replace(0, 1, "\1") +
                            groups({{kRuns, 0}}).replace(0, 4, bytes({0, 8, 0, 0})),
                        kPic,
                        kRgb,
                        {{{8}, {0}, {0}}}});
}

class PicRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(PicRefusal, IsTold) { test::expect_refusal(GetParam()); }

std::string chain(std::size_t count) {
  std::string text = header({1, 1});
  for (std::size_t i = 0; i < count; ++i) text += bytes({i + 1 < count, 8, 0, i == 0 ? 0xe0 : 0});
  return text + bytes({1, 2, 3});
}

std::string mixed(std::initializer_list<int> pixels) {
  return file({3, 1}, {{kMixed, 0xe0}}, pixels);
}
std::string runs(std::initializer_list<int> pixels) {
  return file({3, 1}, {{kRuns, 0xe0}}, pixels);
}

const std::vector<test::Refusal> kHeaders = {
    {"OtherMagic", bytes({0x53, 0x80, 0xf6, 0x35}) + header({1, 1}).substr(4), IMG_ERR_FORMAT},
    {"SixteenBits", file({1, 1}, {{kMixed, 0xe0, 16}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"OtherCompression", file({1, 1}, {{3, 0xe0}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"OtherChannel", file({1, 1}, {{kMixed, 0xe1}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"NoBlue", file({1, 1}, {{kMixed, 0xd0}}, {0, 1, 2, 3}), IMG_ERR_SUBTYPE},
    {"AlphaOnly", file({1, 1}, {{kMixed, 0x10}}, {0, 1}), IMG_ERR_SUBTYPE},
    {"FiveGroups",
     file({1, 1}, {{0, 0xe0}, {0, 0x10}, {0, 0x80}, {0, 0x40}, {0, 0x20}}, {1, 2, 3, 4, 5, 6, 7}),
     IMG_ERR_SUBTYPE},
    // the 38th ends with byte 256
    {"ChainOf39Groups", chain(39), IMG_ERR_SUBTYPE},
    {"HeaderEnds", header({1, 1}), IMG_ERR_READ},
    {"GroupEnds", file({1, 1}, {{kMixed, 0xe0}}, {}).substr(0, 107), IMG_ERR_READ},
    {"ChainEnds", header({1, 1}) + bytes({1, 8, 2, 0xe0}), IMG_ERR_READ},
};
INSTANTIATE_TEST_SUITE_P(Headers, PicRefusal, testing::ValuesIn(kHeaders),
                         test::row_name<test::Refusal>);

const std::vector<test::Refusal> kLines = {
    {"NoPixels", mixed({}), IMG_ERR_READ, 0},
    {"VerbatimEnds", file({1, 2}, {{kVerbatim, 0xe0}}, {1, 2, 3, 4, 5}), IMG_ERR_READ, 1},
    {"AlphaIsMissing", file({1, 1}, {{kMixed, 0xe0}, {kMixed, 0x10}}, {0, 1, 2, 3}), IMG_ERR_READ,
     0},
    {"LiteralsEnd", mixed({2, 1, 2, 3, 4, 5, 6, 7, 8}), IMG_ERR_READ, 0},
    {"LiteralsPastTheLine", mixed({3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"RunEnds", mixed({130, 1, 2}), IMG_ERR_READ, 0},
    {"RunPastTheLine", mixed({131, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"WideRunPastTheLine", mixed({128, 255, 255, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"WideCountEnds", mixed({128, 0}), IMG_ERR_READ, 0},
    {"WideCountOfNothing", mixed({128, 0, 0, 1, 2, 3, 130, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"PureRunPastTheLine", runs({4, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"PureRunOfNothing", runs({0, 1, 2, 3, 3, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"PureRunEnds", runs({3, 1, 2}), IMG_ERR_READ, 0},
    {"NoLineBehindTheLast", mixed({130, 1, 2, 3, 130, 1, 2, 3}), IMG_ERR_READ, 1},
};
INSTANTIATE_TEST_SUITE_P(Lines, PicRefusal, testing::ValuesIn(kLines),
                         test::row_name<test::Refusal>);

TEST(Pic, AChainMayFillTheFirst256Bytes) {
  test::expect_picture({"", chain(38), kPic, kRgb, {{{1}, {8}, {0}}}});
}

// The top line first, of each the colours, then alpha.
TEST(Pic, WritesTheseBytes) {
  const test::Image image =
      test::make_picture(kRgba, 4,
                         {{{1, 1, 1, 2}, {3, 3, 3, 4}, {5, 5, 5, 6}, {0, 7, 7, 7}},
                          {{1, 1, 1, 1}, {2, 2, 3, 3}, {0, 0, 0, 0}, {8, 9, 8, 9}}});
  EXPECT_EQ(test::written(kPic, image.get()),
            file({4, 2}, {{kMixed, 0xe0}, {kMixed, 0x10}},
                 {3,   1, 2, 0, 1, 2, 0, 1, 3, 0, 1,   3, 0, 3, 8, 9, 8, 9,  //
                  130, 1, 3, 5, 0, 2, 4, 6, 0, 0, 130, 7}));

  const test::Image wide = test::make_image(kRgba, 300, 1);
  EXPECT_EQ(test::written(kPic, wide.get()),
            file({300, 1}, {{kMixed, 0xe0}, {kMixed, 0x10}}, {128, 1, 44, 0, 0, 0, 128, 1, 44, 0}));
}

struct Settings {
  float aspect, fields;
  float written_aspect;
  int written_fields;
};

TEST(Pic, HeaderHasTheSettings) {
  for (const auto& [aspect, fields, written_aspect, written_fields] : {Settings{0, 0, 1, 3},
                                                                       {1.25F, 1, 1.25F, 1},
                                                                       {-2, 2.9F, -2, 2},
                                                                       {1, 4, 1, 0},
                                                                       {1, -1, 1, 3},
                                                                       {1, NAN, 1, 0},
                                                                       {1, INFINITY, 1, 0}}) {
    const test::Scratch scratch;
    const std::string path = scratch.path("a");
    test::Handle out;
    ASSERT_TRUE(ka_img_create(out, path.c_str(), kRgba, kPic, 1, 1));
    out->aspect = aspect;
    out->parameters[1] = std::bit_cast<std::uint32_t>(fields);
    const test::Line line(ka_img_line_alloc(out));
    ASSERT_TRUE(ka_img_line_write(out, line.get()));
    ASSERT_TRUE(ka_img_close(out));
    EXPECT_EQ(test::read_file(path).substr(0, kHeaderBytes),
              header({1, 1, written_aspect, written_fields}));
  }
}

// Widest lines pass the usual buffer of the reader.
TEST(Pic, WidestLinesAreRead) {
  const test::Image image = test::make_image(kRgba, 65535, 2);
  std::uint32_t state = 1;
  for (int y = 0; y < 2; ++y) {
    for (std::size_t slot = 0; slot < 4; ++slot) {
      for (int x = 0; x < 65535; ++x) {
        if (x % 7 < 4) state = state * 1664525 + 1013904223;
        test::plane(image.get(), y, slot)[x] = std::uint8_t(state >> 24);
      }
    }
  }
  test::expect_picture(
      {"", test::written(kPic, image.get()), kPic, kRgba, test::lines_of(image.get())});
}

}  // namespace
