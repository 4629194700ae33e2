// Alias pix images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include "pictures.h"

namespace {

using test::bytes;

struct Header {
  int width, height, x = 0, y = 0, depth = 24;
};

std::string be16(int value) { return bytes({value >> 8, value & 255}); }

// A packet: count, blue, green, red.
std::string file(const Header& h, std::initializer_list<int> packets) {
  return be16(h.width) + be16(h.height) + be16(h.x) + be16(h.y) + be16(h.depth) + bytes(packets);
}

constexpr int kAlias = IMG_FORMAT_ALIAS, kRgb = IMG_TYPE_RGB;

class AliasPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(AliasPicture, IsRead) { test::expect_picture(GetParam()); }

const std::vector<test::Picture> kPictures = {
    {"TwoPacketsFillTheLine",
     file({.width = 3, .height = 1}, {2, 10, 20, 30, 1, 40, 50, 60}),
     kAlias,
     kRgb,
     {{{30, 30, 60}, {20, 20, 50}, {10, 10, 40}}}},
    {"TopLineFirst",
     file({.width = 1, .height = 2}, {1, 1, 2, 3, 1, 4, 5, 6}),
     kAlias,
     kRgb,
     {{{6}, {5}, {4}}, {{3}, {2}, {1}}}},
    {"PacketsOf32BitFilesAreTheSame",
     file({.width = 2, .height = 1, .x = 4095, .y = 4095, .depth = 32}, {2, 1, 2, 3}),
     kAlias,
     kRgb,
     {{{3, 3}, {2, 2}, {1, 1}}}},
    {"BytesBehindTheLastLine",
     file({.width = 1, .height = 1}, {1, 1, 2, 3, 0, 9}),
     kAlias,
     kRgb,
     {{{3}, {2}, {1}}}},
    {"TheLongestPacket",
     file({.width = 255, .height = 1}, {255, 1, 2, 3}),
     kAlias,
     kRgb,
     {{std::vector<std::uint32_t>(255, 3), std::vector<std::uint32_t>(255, 2),
       std::vector<std::uint32_t>(255, 1)}}},
};
INSTANTIATE_TEST_SUITE_P(Files, AliasPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

class AliasRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(AliasRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kRefusals = {
    {"NoWidth", file({.width = 0, .height = 1}, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"NoHeight", file({.width = 1, .height = 0}, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"TooWide", file({.width = 4096, .height = 1}, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"TooHigh", file({.width = 1, .height = 4096}, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"OriginFarRight", file({.width = 1, .height = 1, .x = 4096}, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"OriginFarDown", file({.width = 1, .height = 1, .y = 4096}, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"Grey", file({.width = 1, .height = 1, .depth = 8}, {1, 1}), IMG_ERR_FORMAT},
    {"HeaderEnds", be16(1) + be16(1) + be16(0) + be16(0) + bytes({0}), IMG_ERR_FORMAT},
    {"NoPackets", file({.width = 1, .height = 1}, {}), IMG_ERR_CORRUPT, 0},
    {"LastLineLacksAPacket", file({.width = 2, .height = 2}, {2, 1, 2, 3, 1, 1, 2, 3}),
     IMG_ERR_CORRUPT, 1},
    {"FileEndsInsideAPacket", file({.width = 3, .height = 1}, {2, 1, 2, 3, 1, 4, 5}),
     IMG_ERR_CORRUPT, 0},
    {"PacketPastTheLineEnd", file({.width = 2, .height = 2}, {3, 1, 2, 3, 1, 1, 2, 3}),
     IMG_ERR_CORRUPT, 0},
    {"PacketOfNoPixels", file({.width = 1, .height = 1}, {0, 1, 2, 3, 1, 1, 2, 3}), IMG_ERR_CORRUPT,
     0},
    {"PacketOfNoPixelsInsideTheLine",
     file({.width = 2, .height = 1}, {1, 1, 2, 3, 0, 1, 2, 3, 1, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
};
INSTANTIATE_TEST_SUITE_P(Files, AliasRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

// The file had its packets when it was opened: this is no damaged picture.
TEST(Alias, FileThatShrinksIsShort) {
  const test::Scratch scratch;
  const std::string path =
      scratch.write("a", file({.width = 1, .height = 2}, {1, 1, 2, 3, 1, 4, 5, 6}));
  test::Handle handle;
  ASSERT_TRUE(ka_img_open(handle, path.c_str(), IMG_TYPE_FILE));
  ASSERT_EQ(truncate(path.c_str(), 12), 0);
  const test::Line line(ka_img_line_alloc(handle));
  EXPECT_FALSE(ka_img_line_read(handle, line.get()));
  EXPECT_EQ(handle->error, IMG_ERR_READ);
}

std::string written(const test::Lines& lines) {
  const test::Image image = test::make_picture(kRgb, int(lines[0][0].size()), lines);
  return test::written(kAlias, image.get());
}

TEST(Alias, WritesTheTopLineFirst) {
  EXPECT_EQ(written({{{1}, {2}, {3}}, {{4}, {5}, {6}}}),
            file({.width = 1, .height = 2}, {1, 6, 5, 4, 1, 3, 2, 1}));
}

TEST(Alias, WritesRunsOfEqualPixels) {
  const auto uniform = [](std::uint32_t value) { return std::vector<std::uint32_t>(300, value); };
  EXPECT_EQ(written({{uniform(7), uniform(8), uniform(9)}}),
            file({.width = 300, .height = 1}, {255, 9, 8, 7, 45, 9, 8, 7}));
  EXPECT_EQ(written({{{1, 2, 1}, {0, 0, 0}, {0, 0, 0}}}),
            file({.width = 3, .height = 1}, {1, 0, 0, 1, 1, 0, 0, 2, 1, 0, 0, 1}));
  // each of the samples alone ends a run, and so does the line
  EXPECT_EQ(written({{{1, 1, 1, 1, 2}, {3, 3, 3, 4, 4}, {5, 5, 6, 6, 6}},
                     {{1, 1, 1, 1, 1}, {3, 3, 3, 3, 3}, {5, 5, 5, 5, 5}}}),
            file({.width = 5, .height = 2},
                 {5, 5, 3, 1, 2, 5, 3, 1, 1, 6, 3, 1, 1, 6, 4, 1, 1, 6, 4, 2}));
}

}  // namespace
