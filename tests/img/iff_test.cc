// Tiled IFF images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <random>

#include "pictures.h"

namespace {

using test::be;
using test::bytes;

constexpr int kIff = IMG_FORMAT_IFF, kS = IMG_TYPE_S, kRgb = IMG_TYPE_RGB;

std::string chunk(const std::string& name, const std::string& data) {
  return name + be(4, std::int64_t(data.size())) + data + std::string(-data.size() % 4, '\0');
}
// The padding of its last chunk counts.
std::string form(const std::string& type, const std::string& chunks) {
  return "FOR4" + be(4, std::int64_t(chunks.size()) + 4) + type + chunks;
}

struct Header {
  int width, height;
  int flags = 0;  // 1 colour, 2 alpha, 4 depth
  int depth = 0;  // bytes per sample - 1
  int tiles = 1;
  int compression = 0;
};
std::string header(const Header& h) {
  return chunk("TBHD", be(4, h.width) + be(4, h.height) + be(4, 0) + be(4, h.flags) +
                           be(2, h.depth) + be(2, h.tiles) + be(4, h.compression));
}

struct Bounds {
  int x1, y1, x2, y2;
};
std::string tile(const Bounds& b, const std::string& data, const char* name = "RGBA") {
  return chunk(name, be(2, b.x1) + be(2, b.y1) + be(2, b.x2) + be(2, b.y2) + data);
}
std::string file(const Header& h, const std::string& tiles) {
  return form("CIMG", header(h) + form("TBMP", tiles));
}
// A picture of one tile.
std::string one(const Header& h, std::initializer_list<int> data, const char* name = "RGBA") {
  return file(h, tile({0, 0, h.width - 1, h.height - 1}, bytes(data), name));
}
const std::vector<test::Shown> kColors = {
    {"Rgb", one({2, 1, 1}, {3, 2, 1, 6, 5, 4}), {{{1, 4}, {2, 5}, {3, 6}}}},
    {"NoLine", file({3, 0, 1, 0, 0}, ""), {}},
    {"OtherChunksAreSkipped",
     form("CIMG", chunk("AUTH", "x") + form("OTHR", chunk("TBHD", "12345")) + header({1, 1, 5}) +
                      form("TBMP", tile({0, 0, 0, 0}, "1234", "ZBUF") + chunk("ABCD", "12345") +
                                       tile({0, 0, 0, 0}, "\3\2\1"))),
     {{{1}, {2}, {3}}}},
};
const std::string kOne = tile({0, 0, 0, 0}, "\1");
const std::vector<test::Shown> kScalars = {
    {"S", one({1, 2}, {7, 9}), {{{7}}, {{9}}}},
    {"AlphaOnly", one({2, 1, 2}, {7, 9}), {{{7, 9}}}},
    {"CompressionThatDidNotHelp", one({2, 1, 0, 0, 1, 1}, {0x81, 9}), {{{0x81, 9}}}},
    {"PlanesGoOn", one({2, 3, 0, 0, 1, 1}, {130, 1, 130, 2}), {{{1, 1}}, {{1, 2}}, {{2, 2}}}},
    {"AnyOrder", file({1, 2, 0, 0, 2}, tile({0, 1, 0, 1}, "\2") + kOne), {{{1}}, {{2}}}},
    {"FormsOfAnySize",
     "FOR4" + be(4, 0) + "CIMG" + header({1, 1}) + "FOR4" + be(4, -1) + "TBMP" + kOne,
     {{{1}}}},
    {"NoPadding", one({1, 1}, {5}).substr(0, 73), {{{5}}}},
};
TEST(Iff, PicturesAreRead) {
  test::expect_pictures(kIff, kRgb, kColors);
  test::expect_pictures(kIff, kS, kScalars);
  test::expect_pictures(kIff, IMG_TYPE_S_16, {{"", one({1, 1, 0, 1}, {2, 1}), {{{0x102}}}}});
  test::expect_pictures(kIff, IMG_TYPE_S_FP,
                        {{"", one({1, 1, 0, 3}, {4, 3, 2, 1}), {{{0x1020304}}}}});
}

const std::vector<test::Refusal> kRefusals = {
    {"OtherForm", form("ILBM", header({1, 1})), IMG_ERR_FORMAT},
    {"DepthOnly", one({1, 1, 4, 3}, {1, 2, 3, 4}, "ZBUF"), IMG_ERR_FORMAT},
    {"ThreeBytesPerSample", one({1, 1, 0, 2}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"WiderThanTilesReach", one({65537, 1}, {1}), IMG_ERR_CORRUPT},
    {"OneTileTooFew", one({1, 1, 0, 0, 2}, {1}), IMG_ERR_READ},
    {"TileWithoutBounds", file({1, 1}, chunk("RGBA", "1234567")), IMG_ERR_CORRUPT},
    {"TileRightOfTheImage", file({2, 1}, tile({1, 0, 2, 0}, "12")), IMG_ERR_CORRUPT},
    {"TileFromRightToLeft", file({2, 1}, tile({1, 0, 0, 0}, "12")), IMG_ERR_CORRUPT},
    {"RawTileEnds", one({2, 1, 1}, {1, 2, 3, 4, 5}), IMG_ERR_READ, 0},
    {"FileEndsInATile", one({9, 1, 0, 0, 1, 1}, {0x88, 1}).substr(0, 73), IMG_ERR_CORRUPT, 0},
    {"RightTileIsMissing", file({2, 1}, tile({0, 0, 0, 0}, "1")), IMG_ERR_READ, 0},
    {"TilesOverlap", file({3, 1, 0, 0, 2}, tile({0, 0, 1, 0}, "12") + tile({1, 0, 2, 0}, "12")),
     IMG_ERR_CORRUPT, 0},
    // 40000 bytes need at least 625 bytes of packets
    {"TooMany", one({200, 200, 0, 0, 1, 1}, {0xff, 1, 0xff, 1}), IMG_ERR_CORRUPT, 0},
    {"RunPastThePlane", one({5, 1, 0, 0, 1, 1}, {0x85, 1}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastThePlane", one({5, 1, 0, 0, 1, 1}, {0x82, 1, 2, 1}), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", one({1, 1}, {1}), IMG_ERR_READ, 1},
};
TEST(Iff, RefusalsAreTold) { test::expect_refusals(kRefusals); }

TEST(Iff, StripsBehindACorruptOneAreRead) {
  const std::string tiles = tile({0, 0, 2, 0}, "\x83\1") + tile({0, 1, 2, 1}, "\x82\5");
  EXPECT_EQ(test::line_errors(file({3, 2, 0, 0, 2, 1}, tiles)),
            (std::vector<int>{IMG_ERR_CORRUPT, IMG_ERR_NONE}));
}

// 4 equal samples and two more take 5 bytes instead of 6, and padding; three bytes do not become
// fewer. Planes are the higher bytes of blue, green and red, then the lower ones.
TEST(Iff, WritesTheseBytes) {
  EXPECT_EQ(test::written(kIff, kS, {{{7, 7, 7, 7, 1, 2}}}),
            one({6, 1, 0, 0, 1, 1}, {0x83, 7, 1, 1, 2}));
  EXPECT_EQ(test::written(kIff, IMG_TYPE_RGBA, {{{1}, {2}, {3}, {4}}}),
            one({1, 1, 3, 0, 1, 1}, {4, 3, 2, 1}));
  const test::Lines colors = {{{0x102, 0x102}, {0x304, 0x304}, {5, 5}},
                              {{0x102, 0x102}, {0x304, 0x304}, {5, 6}}};
  const std::string packets =
      one({2, 2, 1, 1, 1, 1}, {0x83, 0, 0x83, 3, 0x83, 1, 0x82, 5, 0, 6, 0x83, 4, 0x83, 2});
  EXPECT_EQ(test::written(kIff, IMG_TYPE_RGB_16, colors), packets);
  test::expect_picture({"", packets, kIff, IMG_TYPE_RGB_16, colors});
  EXPECT_EQ(test::written(kIff, IMG_TYPE_Z, {test::flat(3, {0x1020304})}),
            one({3, 1, 4, 3, 1, 1}, {0x82, 1, 0x82, 2, 0x82, 3, 0x82, 4}, "ZBUF"));
}

// Pictures of zeros, in tiles of these sizes.
TEST(Iff, TilesAreOfTheseSizes) {
  constexpr struct {
    int width, height, tile_width, tile_height;
  } kTilings[] = {{100, 70, 64, 64},    {5000, 100, 256, 64},  {4096, 1, 64, 64},
                  {1, 4097, 64, 128},   {600, 4097, 512, 128}, {8192, 65, 256, 64},
                  {8193, 33, 1024, 32}, {16385, 33, 2048, 32}};
  for (const auto& [width, height, tile_width, tile_height] : kTilings) {
    std::string tiles;
    int count = 0;
    for (int y = 0; y < height; y += tile_height) {
      for (int x = 0; x < width; x += tile_width, ++count) {
        const Bounds b = {x, y, std::min(x + tile_width, width) - 1,
                          std::min(y + tile_height, height) - 1};
        const int samples = (b.x2 - x + 1) * (b.y2 - y + 1);
        std::string packets;
        for (int i = 128; i <= samples; i += 128) packets += bytes({0xff, 0});
        if (samples % 128 > 0) packets += bytes({0x80 + samples % 128 - 1, 0});
        tiles += tile(b, samples > 1 ? packets : bytes({0}));
      }
    }
    EXPECT_TRUE(test::written(kIff, test::make_image(kS, width, height).get()) ==
                file({width, height, 0, 0, count, 1}, tiles))
        << width << " x " << height;
  }
}

// Noise in the second of three tiles side by side, and nothing in the strip above. Flat tiles take
// two bytes for 128. Lines are read in any order.
TEST(Iff, StripsGoOnRawBehindATileThatDoesNotCompress) {
  const test::Scratch scratch;
  const test::MessageLog log(KA_DEBUG);
  std::mt19937 random(7);
  test::Lines lines(128, test::flat(192, {0}));
  for (std::size_t y = 0; y < 64; ++y) {
    std::generate_n(&lines[y][0][64], 64, [&] { return random() & 255; });
  }
  const std::string written = test::written(kIff, kS, lines);
  EXPECT_EQ(written.size(), 56U + 6 * 16 + 64 + 4096 + 4096 + 3 * 64);
  const auto told = [&](const char* text) {
    return std::ranges::count_if(log.lines(),
                                 [&](const auto& line) { return line.ends_with(text); });
  };
  EXPECT_EQ(told(": IFF writing tiles"), 2);
  EXPECT_EQ(told(": IFF tile not compressable, store raw"), 1);
  test::Handle in;
  ASSERT_TRUE(ka_img_open(in, scratch.write("a", written).c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(in));
  for (in->line_count = 127; in->line_count > 0; in->line_count -= 2) {
    const auto& expected = lines[std::size_t(in->line_count)][0];
    ASSERT_TRUE(ka_img_line_read(in, line.get()));
    EXPECT_TRUE(std::ranges::equal(
        test::samples<std::uint8_t>(test::plane(line.get(), test::kA), 192), expected));
  }
}

// Noise in two strips of 64 lines, the first of which passes the limit.
TEST(Iff, NothingIsWrittenBehindAStripThatFailed) {
  const test::Scratch scratch;
  const test::Limit disk(RLIMIT_FSIZE, 1000);
  test::Handle out;
  out->file_type = kS;
  ASSERT_TRUE(ka_img_create(out, scratch.path("a").c_str(), kS, kIff, 4096, 128));
  const test::Line line(ka_img_line_alloc(out));
  std::mt19937 random(7);
  std::generate_n(test::plane(line.get(), test::kA), 4096, [&] { return std::uint8_t(random()); });
  for (int y = 0; y < 128; ++y) ASSERT_EQ(ka_img_line_write(out, line.get()), y < 63) << y;
  EXPECT_EQ(out->error, IMG_ERR_WRITE);
  EXPECT_TRUE(ka_img_close(out));
  EXPECT_FALSE(test::exists(scratch.path("a")));
}

}  // namespace
