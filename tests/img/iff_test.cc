// Tiled IFF images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <sys/resource.h>

#include <random>

#include "formats/img_iff.h"
#include "pictures.h"

namespace {

using test::bytes;

std::string be16(int value) { return bytes({value >> 8, value & 255}); }
std::string be32(std::int64_t value) { return be16(int(value >> 16)) + be16(int(value & 65535)); }

std::string padded(std::string text) {
  text.resize((text.size() + 3) / 4 * 4);
  return text;
}
std::string chunk(const std::string& name, const std::string& data) {
  return padded(name + be32(std::int64_t(data.size())) + data);
}
// The padding of its last chunk counts.
std::string form(const std::string& type, const std::string& chunks) {
  return "FOR4" + be32(std::int64_t(chunks.size()) + 4) + type + chunks;
}

struct Header {
  int width, height;
  int flags = 1;  // 1 colour, 2 alpha, 4 depth
  int depth = 0;  // bytes per sample - 1
  int tiles = 1;
  int compression = 0;
};
std::string header_data(const Header& h) {
  return be32(h.width) + be32(h.height) + be32(0) + be32(h.flags) + be16(h.depth) + be16(h.tiles) +
         be32(h.compression);
}
std::string header(const Header& h) { return chunk("TBHD", header_data(h)); }

struct Bounds {
  int x1, y1, x2, y2;
  bool operator==(const Bounds&) const = default;
};
std::string tile(const Bounds& b, std::initializer_list<int> data, const char* name = "RGBA") {
  return chunk(name, be16(b.x1) + be16(b.y1) + be16(b.x2) + be16(b.y2) + bytes(data));
}
std::string file(const Header& h, const std::string& tiles) {
  return form("CIMG", header(h) + form("TBMP", tiles));
}

class IffPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(IffPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr int kIff = IMG_FORMAT_IFF;

const std::vector<test::Picture> kPlain = {
    {"Colours",
     file({2, 1}, tile({0, 0, 1, 0}, {3, 2, 1, 6, 5, 4})),
     kIff,
     IMG_TYPE_RGB,
     {{{1, 4}, {2, 5}, {3, 6}}}},
    {"ColoursWithAlpha",
     file({1, 2, 3}, tile({0, 0, 0, 1}, {4, 3, 2, 1, 8, 7, 6, 5})),
     kIff,
     IMG_TYPE_RGBA,
     {{{1}, {2}, {3}, {4}}, {{5}, {6}, {7}, {8}}}},
    {"OneComponent", file({2, 1, 0}, tile({0, 0, 1, 0}, {7, 9})), kIff, IMG_TYPE_S, {{{7, 9}}}},
    {"AlphaOnly", file({2, 1, 2}, tile({0, 0, 1, 0}, {7, 9})), kIff, IMG_TYPE_S, {{{7, 9}}}},
    // (0x102, 0x304, 0x506), each byte in reverse
    {"SixteenBits",
     file({1, 1, 1, 1}, tile({0, 0, 0, 0}, {6, 5, 4, 3, 2, 1})),
     kIff,
     IMG_TYPE_RGB_16,
     {{{0x102}, {0x304}, {0x506}}}},
    {"SixteenBitsOneComponent",
     file({2, 1, 0, 1}, tile({0, 0, 1, 0}, {2, 1, 4, 3})),
     kIff,
     IMG_TYPE_S_16,
     {{{0x102, 0x304}}}},
    {"SixteenBitsWithAlpha",
     file({1, 1, 3, 1}, tile({0, 0, 0, 0}, {8, 7, 6, 5, 4, 3, 2, 1})),
     kIff,
     IMG_TYPE_RGBA_16,
     {{{0x102}, {0x304}, {0x506}, {0x708}}}},
    {"Floats",
     file({1, 1, 0, 3}, tile({0, 0, 0, 0}, {4, 3, 2, 1})),
     kIff,
     IMG_TYPE_S_FP,
     {{{0x1020304}}}},
    {"FloatsWithAlpha",
     file({1, 1, 3, 3}, tile({0, 0, 0, 0}, {4, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0})),
     kIff,
     IMG_TYPE_RGBA_FP,
     {{{1}, {2}, {3}, {4}}}},
    {"CompressionThatDidNotHelp",
     file({2, 1, 0, 0, 1, 1}, tile({0, 0, 1, 0}, {0x81, 9})),
     kIff,
     IMG_TYPE_S,
     {{{0x81, 9}}}},
    {"NoLine", file({3, 0, 1, 0, 0}, ""), kIff, IMG_TYPE_RGB, {}},
};
INSTANTIATE_TEST_SUITE_P(Plain, IffPicture, testing::ValuesIn(kPlain),
                         test::row_name<test::Picture>);

const std::vector<test::Picture> kEncoded = {
    // blue, green, red
    {"Colours",
     file({4, 1, 1, 0, 1, 1}, tile({0, 0, 3, 0}, {0x83, 3, 3, 1, 2, 3, 4, 0x82, 5, 0, 7})),
     kIff,
     IMG_TYPE_RGB,
     {{{5, 5, 5, 7}, {1, 2, 3, 4}, {3, 3, 3, 3}}}},
    {"PlanesGoOnFromLineToLine",
     file({2, 3, 0, 0, 1, 1}, tile({0, 0, 1, 2}, {0x82, 1, 0x82, 2})),
     kIff,
     IMG_TYPE_S,
     {{{1, 1}}, {{1, 2}}, {{2, 2}}}},
    // the higher bytes of blue, green and red, then the lower ones
    {"SixteenBits",
     file({3, 1, 1, 1, 1, 1},
          tile({0, 0, 2, 0}, {0x82, 5, 0x82, 3, 0x82, 1, 0x82, 6, 0x82, 4, 0x82, 2})),
     kIff,
     IMG_TYPE_RGB_16,
     {{{0x102, 0x102, 0x102}, {0x304, 0x304, 0x304}, {0x506, 0x506, 0x506}}}},
    {"Floats",
     file({3, 1, 0, 3, 1, 1}, tile({0, 0, 2, 0}, {0x82, 1, 0x82, 2, 0x82, 3, 0x82, 4})),
     kIff,
     IMG_TYPE_S_FP,
     {{{0x1020304, 0x1020304, 0x1020304}}}},
};
INSTANTIATE_TEST_SUITE_P(Encoded, IffPicture, testing::ValuesIn(kEncoded),
                         test::row_name<test::Picture>);

const std::vector<test::Picture> kChunks = {
    {"TilesInAnyOrder",
     file({3, 3, 0, 0, 4}, tile({2, 2, 2, 2}, {9}) + tile({1, 0, 2, 1}, {2, 3, 5, 6}) +
                               tile({0, 2, 1, 2}, {7, 8}) + tile({0, 0, 0, 1}, {1, 4})),
     kIff,
     IMG_TYPE_S,
     {{{1, 2, 3}}, {{4, 5, 6}}, {{7, 8, 9}}}},
    {"OtherChunksAreSkipped",
     form("CIMG", chunk("AUTH", "x") + form("OTHR", chunk("TBHD", "12345")) +
                      chunk("TBHD", header_data({2, 1, 5, 0, 2}) + "12345") + chunk("DATE", "") +
                      form("TBMP", tile({0, 0, 1, 0}, {1, 2, 3, 4, 5, 6, 7, 8}, "ZBUF") +
                                       tile({0, 0, 0, 0}, {3, 2, 1}) + chunk("ABCD", "12345") +
                                       tile({1, 0, 1, 0}, {6, 5, 4}))),
     kIff,
     IMG_TYPE_RGB,
     {{{1, 4}, {2, 5}, {3, 6}}}},
    {"BytesBehindTheTilesAreIgnored",
     file({1, 1, 0}, tile({0, 0, 0, 0}, {1, 2, 3}) + tile({0, 0, 0, 0}, {9})) + "END",
     kIff,
     IMG_TYPE_S,
     {{{1}}}},
    {"FormsMayHaveAnySize",
     "FOR4" + be32(0) + "CIMG" + header({1, 1, 0}) + "FOR4" + be32(0xffffffff) + "TBMP" +
         tile({0, 0, 0, 0}, {5}),
     kIff,
     IMG_TYPE_S,
     {{{5}}}},
    {"PaddingOfTheLastTileIsMissing",
     file({1, 1, 0}, tile({0, 0, 0, 0}, {5}).substr(0, 17)),
     kIff,
     IMG_TYPE_S,
     {{{5}}}},
};
INSTANTIATE_TEST_SUITE_P(Chunks, IffPicture, testing::ValuesIn(kChunks),
                         test::row_name<test::Picture>);

class IffRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(IffRefusal, IsTold) { test::expect_refusal(GetParam()); }

std::string encoded(int width, std::initializer_list<int> packets) {
  return file({width, 1, 0, 0, 1, 1}, tile({0, 0, width - 1, 0}, packets));
}

const std::vector<test::Refusal> kHeaders = {
    {"OtherForm", form("ILBM", header({1, 1})), IMG_ERR_FORMAT},
    {"NoForm", "LIST" + be32(4) + "CIMG" + header({1, 1}), IMG_ERR_FORMAT},
    {"DepthOnly", file({1, 1, 4, 3}, tile({0, 0, 0, 0}, {1, 2, 3, 4}, "ZBUF")), IMG_ERR_FORMAT},
    {"NoHeader", form("CIMG", form("TBMP", "")), IMG_ERR_READ},
    {"HeaderEnds", form("CIMG", header({1, 1})).substr(0, 43), IMG_ERR_READ},
    {"HeaderIsTooShort", form("CIMG", chunk("TBHD", std::string(20, '\0')) + form("TBMP", "")),
     IMG_ERR_READ},
    {"ThreeBytesPerSample", file({1, 1, 0, 2}, tile({0, 0, 0, 0}, {1, 2, 3})), IMG_ERR_SUBTYPE},
    {"OtherCompression", file({1, 1, 0, 0, 1, 2}, tile({0, 0, 0, 0}, {1})), IMG_ERR_SUBTYPE},
    {"WiderThanTilesReach", file({65537, 1, 0}, tile({0, 0, 0, 0}, {1})), IMG_ERR_CORRUPT},
    {"HigherThanTilesReach", file({1, 65537, 0}, tile({0, 0, 0, 0}, {1})), IMG_ERR_CORRUPT},
    {"NoTiles", form("CIMG", header({1, 1})), IMG_ERR_READ},
    {"OneTileTooFew", file({1, 1, 0, 0, 2}, tile({0, 0, 0, 0}, {1})), IMG_ERR_READ},
    {"ChunkPastTheFile",
     form("CIMG", chunk("AUTH", "abc").replace(4, 4, be32(0xffffffff)) + header({1, 1})),
     IMG_ERR_READ},
    {"TileWithoutBounds", file({1, 1, 0}, chunk("RGBA", "1234567")), IMG_ERR_CORRUPT},
    {"TileRightOfTheImage", file({2, 1, 0}, tile({1, 0, 2, 0}, {1, 2})), IMG_ERR_CORRUPT},
    {"TileAboveTheImage", file({1, 2, 0}, tile({0, 1, 0, 2}, {1, 2})), IMG_ERR_CORRUPT},
    {"TileFromRightToLeft", file({2, 1, 0}, tile({1, 0, 0, 0}, {1, 2})), IMG_ERR_CORRUPT},
    {"TileFromTopToBottom", file({1, 2, 0}, tile({0, 1, 0, 0}, {1, 2})), IMG_ERR_CORRUPT},
};
INSTANTIATE_TEST_SUITE_P(Headers, IffRefusal, testing::ValuesIn(kHeaders),
                         test::row_name<test::Refusal>);

const std::vector<test::Refusal> kTiles = {
    {"RawTileEnds", file({2, 1}, tile({0, 0, 1, 0}, {1, 2, 3, 4, 5})), IMG_ERR_READ, 0},
    {"FileEndsInARawTile",
     file({2, 2, 0, 0, 2}, tile({0, 0, 1, 0}, {1, 2}) + tile({0, 1, 1, 1}, {1, 2}).substr(0, 17)),
     IMG_ERR_READ, 1},
    {"FileEndsInAnEncodedTile",
     file({9, 1, 0, 0, 1, 1}, tile({0, 0, 8, 0}, {0x88, 1}).substr(0, 17)), IMG_ERR_CORRUPT, 0},
    {"TileIsMissing", file({2, 2, 0, 0, 1}, tile({0, 0, 1, 0}, {1, 2})), IMG_ERR_READ, 1},
    {"LeftTileIsMissing", file({2, 1, 0}, tile({1, 0, 1, 0}, {1})), IMG_ERR_READ, 0},
    {"RightTileIsMissing", file({2, 1, 0}, tile({0, 0, 0, 0}, {1})), IMG_ERR_READ, 0},
    {"TilesOverlap", file({3, 1, 0, 0, 2}, tile({0, 0, 1, 0}, {1, 2}) + tile({1, 0, 2, 0}, {1, 2})),
     IMG_ERR_CORRUPT, 0},
    {"TilesOfDifferentLines",
     file({2, 3, 0, 0, 2}, tile({0, 0, 0, 1}, {1, 2}) + tile({1, 1, 1, 2}, {1, 2})),
     IMG_ERR_CORRUPT, 0},
    // 40000 bytes need at least 625 bytes of packets
    {"MoreThanPacketsCanGive",
     file({200, 200, 0, 0, 1, 1}, tile({0, 0, 199, 199}, {0xff, 1, 0xff, 1})), IMG_ERR_CORRUPT, 0},
    {"NoPackets", encoded(3, {}), IMG_ERR_CORRUPT, 0},
    {"PacketsEnd", encoded(5, {0x83, 1}), IMG_ERR_CORRUPT, 0},
    {"LiteralsEnd", encoded(5, {4, 1, 2}), IMG_ERR_CORRUPT, 0},
    {"RunWithoutItsValue", encoded(5, {0x84}), IMG_ERR_CORRUPT, 0},
    {"RunPastThePlane", encoded(5, {0x85, 1}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastThePlane", encoded(5, {0x82, 1, 2, 1}), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", file({1, 1, 0}, tile({0, 0, 0, 0}, {1})), IMG_ERR_READ, 1},
};
INSTANTIATE_TEST_SUITE_P(Tiles, IffRefusal, testing::ValuesIn(kTiles),
                         test::row_name<test::Refusal>);

TEST(Iff, StripsBehindACorruptOneAreRead) {
  const test::Scratch scratch;
  test::Handle in;
  const std::string path = scratch.write(
      "a", file({3, 2, 0, 0, 2, 1}, tile({0, 0, 2, 0}, {0x83, 1}) + tile({0, 1, 2, 1}, {0x82, 5})));
  ASSERT_TRUE(ka_img_open(in, path.c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(in));
  EXPECT_FALSE(ka_img_line_read(in, line.get()));
  EXPECT_TRUE(ka_img_line_read(in, line.get()));
  EXPECT_EQ(test::plane(line.get(), test::kA)[2], 5);
}

// A written file: its header and the bounds and sizes of its tiles.
struct WrittenTile {
  Bounds bounds;
  std::size_t bytes;
};
constexpr std::size_t kFirstTile = 12 + 32 + 12;

std::vector<WrittenTile> tiles_of(const std::string& text) {
  std::vector<WrittenTile> tiles;
  const auto number = [&](std::size_t at, std::size_t count) {
    int value = 0;
    while (count-- > 0) value = value << 8 | std::uint8_t(text[at++]);
    return value;
  };
  for (std::size_t at = kFirstTile; at < text.size();) {
    const auto size = std::size_t(number(at + 4, 4));
    tiles.push_back(
        {{number(at + 8, 2), number(at + 10, 2), number(at + 12, 2), number(at + 14, 2)},
         size - kIffBoundsBytes});
    at += 8 + (size + 3) / 4 * 4;
  }
  return tiles;
}

// Encoded: 4 equal samples and two more take 5 bytes instead of 6, and padding.
TEST(Iff, WritesTheseBytes) {
  const test::Image scalars = test::make_picture(IMG_TYPE_S, 6, {{{7, 7, 7, 7, 1, 2}}});
  EXPECT_EQ(test::written(kIff, scalars.get()),
            file({6, 1, 0, 0, 1, 1}, tile({0, 0, 5, 0}, {0x83, 7, 1, 1, 2})));

  const test::Image colours = test::make_picture(
      IMG_TYPE_RGB_16, 2,
      {{{0x102, 0x102}, {0x304, 0x304}, {5, 5}}, {{0x102, 0x102}, {0x304, 0x304}, {5, 6}}});
  EXPECT_EQ(test::written(kIff, colours.get()),
            file({2, 2, 1, 1, 1, 1},
                 tile({0, 0, 1, 1}, {0x83, 0, 0x83, 3, 0x83, 1, 0x82, 5, 0, 6, 0x83, 4, 0x83, 2})));

  // three bytes do not become fewer
  const test::Image raw = test::make_picture(IMG_TYPE_RGBA, 1, {{{1}, {2}, {3}, {4}}});
  EXPECT_EQ(test::written(kIff, raw.get()),
            file({1, 1, 3, 0, 1, 1}, tile({0, 0, 0, 0}, {4, 3, 2, 1})));
}

TEST(Iff, DepthsAreWrittenAndNotRead) {
  const test::Image depths =
      test::make_picture(IMG_TYPE_Z, 3, {{{0x1020304, 0x1020304, 0x1020304}}});
  const std::string written = test::written(kIff, depths.get());
  EXPECT_EQ(written, file({3, 1, 4, 3, 1, 1},
                          tile({0, 0, 2, 0}, {0x82, 1, 0x82, 2, 0x82, 3, 0x82, 4}, "ZBUF")));
  test::expect_refusal({"", written, IMG_ERR_FORMAT});
}

struct Tiling {
  int width, height;
  std::vector<Bounds> tiles;  // the first ones, and the last one
  std::size_t count;
};

TEST(Iff, TilesAreOfTheseSizes) {
  const std::vector<Tiling> tilings = {
      {100, 70, {{0, 0, 63, 63}, {64, 0, 99, 63}, {0, 64, 63, 69}, {64, 64, 99, 69}}, 4},
      {5000, 100, {{0, 0, 255, 63}, {256, 0, 511, 63}, {4864, 64, 4999, 99}}, 40},
      {4096, 1, {{0, 0, 63, 0}, {4032, 0, 4095, 0}}, 64},
      {1, 4097, {{0, 0, 0, 127}, {0, 128, 0, 255}, {0, 4096, 0, 4096}}, 33},
      {600, 4097, {{0, 0, 511, 127}, {512, 0, 599, 127}, {512, 4096, 599, 4096}}, 66},
      {8192, 65, {{0, 0, 255, 63}, {7936, 64, 8191, 64}}, 64},
      {8193, 33, {{0, 0, 1023, 31}, {8192, 32, 8192, 32}}, 18},
      {16385, 33, {{0, 0, 2047, 31}, {16384, 32, 16384, 32}}, 18},
  };
  for (const auto& [width, height, bounds, count] : tilings) {
    SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
    const std::string written =
        test::written(kIff, test::make_image(IMG_TYPE_S, width, height).get());
    const std::vector<WrittenTile> tiles = tiles_of(written);
    EXPECT_EQ(written.substr(12, 32), header({width, height, 0, 0, int(count), 1}));
    ASSERT_EQ(tiles.size(), count);
    for (std::size_t i = 0; i + 1 < bounds.size(); ++i) EXPECT_EQ(tiles[i].bounds, bounds[i]) << i;
    EXPECT_EQ(tiles.back().bounds, bounds.back());
  }
}

// Three tiles side by side, two strips: noise in the second tile. Flat tiles take two bytes for
// 128.
TEST(Iff, StripsGoOnRawBehindATileThatDoesNotCompress) {
  const test::Image image = test::make_image(IMG_TYPE_S, 192, 128);
  std::mt19937 random(7);
  for (int y = 0; y < 64; ++y) {
    for (int x = 64; x < 128; ++x) {
      test::plane(image.get(), y, test::kA)[x] = std::uint8_t(random());
    }
  }
  const test::MessageLog log(KA_DEBUG);
  const std::string written = test::written(kIff, image.get());
  std::vector<std::size_t> sizes;
  for (const WrittenTile& tile : tiles_of(written)) sizes.push_back(tile.bytes);
  EXPECT_EQ(sizes, (std::vector<std::size_t>{64, 4096, 4096, 64, 64, 64}));
  int strips = 0, raw = 0;
  for (const std::string& line : log.lines()) {
    strips += line.ends_with(": IFF writing tiles");
    raw += line.ends_with(": IFF tile not compressable, store raw");
  }
  EXPECT_EQ(strips, 2);
  EXPECT_EQ(raw, 1);
  test::expect_picture({"", written, kIff, IMG_TYPE_S, test::lines_of(image.get())});
}

// Stretches of equal samples in tiles of all sample sizes, read from the top down.
TEST(Iff, LinesAreReadInAnyOrder) {
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA_16, IMG_TYPE_S_FP}) {
    const test::Scratch scratch;
    std::mt19937 random(8);
    test::Lines lines(150);
    for (auto& planes : lines) {
      planes.resize(std::size_t(ka_img_ncomp[type]));
      for (auto& plane : planes) {
        while (plane.size() < 100) plane.resize(plane.size() + random() % 20, random() & 255);
        plane.resize(100);
      }
    }
    const test::Image image = test::make_picture(type, 100, lines);
    ASSERT_EQ(test::write_image(scratch.path("a"), kIff, image.get()), IMG_ERR_NONE);
    test::Handle in;
    ASSERT_TRUE(ka_img_open(in, scratch.path("a").c_str(), IMG_TYPE_FILE));
    ASSERT_EQ(in->type, type);
    const test::Image whole(ka_img_image_alloc(in));
    for (int y = 149; y >= 0; --y) {
      in->line_count = y;
      img_line line{};
      for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
        const auto* const plane = test::plane(whole.get(), y, slot);
        if (plane) line.offset[slot] = plane - reinterpret_cast<const std::uint8_t*>(&line);
      }
      ASSERT_TRUE(ka_img_line_read(in, &line)) << y;
    }
    EXPECT_EQ(test::lines_of(whole.get()), lines);
  }
}

TEST(Iff, RefusalsTellTheHeightOfTheHeader) {
  const test::Scratch scratch;
  test::Handle in;
  const std::string path = scratch.write("a", form("CIMG", header({7, 5}) + form("TBMP", "")));
  ASSERT_FALSE(ka_img_open(in, path.c_str(), IMG_TYPE_FILE));
  EXPECT_EQ(in->error, IMG_ERR_READ);
  const test::MessageLog log(KA_ERROR);
  ka_img_err_msg(in);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.lines()[0].ends_with(": can't read line 1 of 5, incomplete file"))
      << log.lines()[0];
}

// Noise in two strips of 64 lines, the first of which passes the limit.
TEST(Iff, NothingIsWrittenBehindAStripThatFailed) {
  constexpr int width = 4096, height = 128, failing_line = 63;
  const test::Scratch scratch;
  const test::Limit disk(RLIMIT_FSIZE, 1000);
  test::Handle out;
  out->file_type = IMG_TYPE_S;
  ASSERT_TRUE(ka_img_create(out, scratch.path("a").c_str(), IMG_TYPE_S, kIff, width, height));
  const test::Line line(ka_img_line_alloc(out));
  std::mt19937 random(7);
  for (int x = 0; x < width; ++x) test::plane(line.get(), test::kA)[x] = std::uint8_t(random());
  for (int y = 0; y < failing_line; ++y) ASSERT_TRUE(ka_img_line_write(out, line.get())) << y;
  for (int y = failing_line; y < height; ++y) {
    ASSERT_FALSE(ka_img_line_write(out, line.get())) << y;
    EXPECT_EQ(out->error, IMG_ERR_WRITE);
    EXPECT_EQ(out->os_error, EFBIG);
    ASSERT_FALSE(out->data.p) << y;
  }
  EXPECT_TRUE(ka_img_close(out));
  EXPECT_FALSE(test::exists(scratch.path("a")));
}

// 17 forms, one inside the other.
TEST(Iff, ChunksNestSixteenDeep) {
  const test::Scratch scratch;
  std::string nested = "1234";
  for (int i = 0; i < 17; ++i) nested = form("NEST", nested);
  img_file in{};
  in.stream = std::fopen(scratch.write("a", nested).c_str(), "rb");
  ASSERT_TRUE(in.stream);
  in.file_size = std::int64_t(nested.size());
  ka::FileReader reader;
  reader.start(&in, 0);
  IffStack stack;
  IffChunk chunk;
  for (std::size_t i = 0; i < 16; ++i) {
    ASSERT_TRUE(img_iff_read_begin_chunk(reader, stack, chunk)) << i;
    EXPECT_EQ(chunk.start, 12 * i);
  }
  EXPECT_FALSE(img_iff_read_begin_chunk(reader, stack, chunk));
  for (int i = 0; i < 16; ++i) EXPECT_TRUE(img_iff_read_end_chunk(reader, stack)) << i;
  EXPECT_EQ(reader.position(), nested.size());
  EXPECT_FALSE(img_iff_read_end_chunk(reader, stack));
  std::fclose(in.stream);
}

}  // namespace
