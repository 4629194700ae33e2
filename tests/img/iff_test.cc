// Tiled IFF images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <sys/resource.h>

#include <random>

#include "formats/img_iff.h"
#include "pictures.h"

namespace {

using test::be, test::bytes;

constexpr int kIff = IMG_FORMAT_IFF;

std::string padded(std::string text) {
  text.resize((text.size() + 3) / 4 * 4);
  return text;
}
std::string chunk(const std::string& name, const std::string& data) {
  return padded(name + be(4, std::int64_t(data.size())) + data);
}
// The padding of its last chunk counts.
std::string form(const std::string& type, const std::string& chunks) {
  return "FOR4" + be(4, std::int64_t(chunks.size()) + 4) + type + chunks;
}

struct Header {
  int width, height;
  int flags = 1;  // 1 colour, 2 alpha, 4 depth
  int depth = 0;  // bytes per sample - 1
  int tiles = 1;
  int compression = 0;
};
std::string header_data(const Header& h) {
  return be(4, h.width) + be(4, h.height) + be(4, 0) + be(4, h.flags) + be(2, h.depth) +
         be(2, h.tiles) + be(4, h.compression);
}
std::string header(const Header& h) { return chunk("TBHD", header_data(h)); }

struct Bounds {
  int x1, y1, x2, y2;
  bool operator==(const Bounds&) const = default;
};
std::string tile(const Bounds& b, std::initializer_list<int> data, const char* name = "RGBA") {
  return chunk(name, be(2, b.x1) + be(2, b.y1) + be(2, b.x2) + be(2, b.y2) + bytes(data));
}
std::string file(const Header& h, const std::string& tiles) {
  return form("CIMG", header(h) + form("TBMP", tiles));
}

// One tile is the picture.
std::string whole(const Header& h, std::initializer_list<int> data, const char* name = "RGBA") {
  return file(h, tile({0, 0, h.width - 1, h.height - 1}, data, name));
}

test::Picture iff(const char* name, const std::string& file, int type, const test::Lines& lines) {
  return {name, file, kIff, type, lines};
}
test::Picture scalars(const char* name, const std::string& file, const test::Lines& lines) {
  return {name, file, kIff, IMG_TYPE_S, lines};
}

const std::vector<test::Picture> kPlain = {
    iff("Colours", whole({2, 1}, {3, 2, 1, 6, 5, 4}), IMG_TYPE_RGB, {{{1, 4}, {2, 5}, {3, 6}}}),
    iff("ColoursWithAlpha", whole({1, 2, 3}, {4, 3, 2, 1, 8, 7, 6, 5}), IMG_TYPE_RGBA,
        {{{1}, {2}, {3}, {4}}, {{5}, {6}, {7}, {8}}}),
    scalars("OneComponent", whole({2, 1, 0}, {7, 9}), {{{7, 9}}}),
    scalars("AlphaOnly", whole({2, 1, 2}, {7, 9}), {{{7, 9}}}),
    // (0x102, 0x304, 0x506), each byte in reverse
    iff("SixteenBits", whole({1, 1, 1, 1}, {6, 5, 4, 3, 2, 1}), IMG_TYPE_RGB_16,
        {{{0x102}, {0x304}, {0x506}}}),
    iff("SixteenBitsOneComponent", whole({2, 1, 0, 1}, {2, 1, 4, 3}), IMG_TYPE_S_16,
        {{{0x102, 0x304}}}),
    iff("SixteenBitsWithAlpha", whole({1, 1, 3, 1}, {8, 7, 6, 5, 4, 3, 2, 1}), IMG_TYPE_RGBA_16,
        {{{0x102}, {0x304}, {0x506}, {0x708}}}),
    iff("Floats", whole({1, 1, 0, 3}, {4, 3, 2, 1}), IMG_TYPE_S_FP, {{{0x1020304}}}),
    iff("FloatsWithAlpha", whole({1, 1, 3, 3}, {4, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0}),
        IMG_TYPE_RGBA_FP, {{{1}, {2}, {3}, {4}}}),
    scalars("CompressionThatDidNotHelp", whole({2, 1, 0, 0, 1, 1}, {0x81, 9}), {{{0x81, 9}}}),
    iff("NoLine", file({3, 0, 1, 0, 0}, ""), IMG_TYPE_RGB, {}),
};
const std::vector<test::Picture> kEncoded = {
    // blue, green, red
    iff("Colours", whole({4, 1, 1, 0, 1, 1}, {0x83, 3, 3, 1, 2, 3, 4, 0x82, 5, 0, 7}), IMG_TYPE_RGB,
        {{{5, 5, 5, 7}, {1, 2, 3, 4}, {3, 3, 3, 3}}}),
    scalars("PlanesGoOnFromLineToLine", whole({2, 3, 0, 0, 1, 1}, {0x82, 1, 0x82, 2}),
            {{{1, 1}}, {{1, 2}}, {{2, 2}}}),
    // the higher bytes of blue, green and red, then the lower ones
    iff("SixteenBits",
        whole({3, 1, 1, 1, 1, 1}, {0x82, 5, 0x82, 3, 0x82, 1, 0x82, 6, 0x82, 4, 0x82, 2}),
        IMG_TYPE_RGB_16, {test::flat(3, {0x102, 0x304, 0x506})}),
    iff("Floats", whole({3, 1, 0, 3, 1, 1}, {0x82, 1, 0x82, 2, 0x82, 3, 0x82, 4}), IMG_TYPE_S_FP,
        {test::flat(3, {0x1020304})}),
};
const std::vector<test::Picture> kChunks = {
    scalars("TilesInAnyOrder",
            file({3, 3, 0, 0, 4}, tile({2, 2, 2, 2}, {9}) + tile({1, 0, 2, 1}, {2, 3, 5, 6}) +
                                      tile({0, 2, 1, 2}, {7, 8}) + tile({0, 0, 0, 1}, {1, 4})),
            {{{1, 2, 3}}, {{4, 5, 6}}, {{7, 8, 9}}}),
    iff("OtherChunksAreSkipped",
        form("CIMG", chunk("AUTH", "x") + form("OTHR", chunk("TBHD", "12345")) +
                         chunk("TBHD", header_data({2, 1, 5, 0, 2}) + "12345") + chunk("DATE", "") +
                         form("TBMP", tile({0, 0, 1, 0}, {1, 2, 3, 4, 5, 6, 7, 8}, "ZBUF") +
                                          tile({0, 0, 0, 0}, {3, 2, 1}) + chunk("ABCD", "12345") +
                                          tile({1, 0, 1, 0}, {6, 5, 4}))),
        IMG_TYPE_RGB, {{{1, 4}, {2, 5}, {3, 6}}}),
    scalars("BytesBehindTheTilesAreIgnored",
            file({1, 1, 0}, tile({0, 0, 0, 0}, {1, 2, 3}) + tile({0, 0, 0, 0}, {9})) + "END",
            {{{1}}}),
    scalars("FormsMayHaveAnySize",
            "FOR4" + be(4, 0) + "CIMG" + header({1, 1, 0}) + "FOR4" + be(4, 0xffffffff) + "TBMP" +
                tile({0, 0, 0, 0}, {5}),
            {{{5}}}),
    scalars("PaddingOfTheLastTileIsMissing", file({1, 1, 0}, tile({0, 0, 0, 0}, {5}).substr(0, 17)),
            {{{5}}}),
};
TEST(Iff, PicturesAreRead) {
  for (const auto& pictures : {kPlain, kEncoded, kChunks}) test::expect_pictures(pictures);
}

std::string encoded(int width, std::initializer_list<int> packets) {
  return whole({width, 1, 0, 0, 1, 1}, packets);
}

const std::vector<test::Refusal> kHeaders = {
    {"OtherForm", form("ILBM", header({1, 1})), IMG_ERR_FORMAT},
    {"NoForm", "LIST" + be(4, 4) + "CIMG" + header({1, 1}), IMG_ERR_FORMAT},
    {"DepthOnly", whole({1, 1, 4, 3}, {1, 2, 3, 4}, "ZBUF"), IMG_ERR_FORMAT},
    {"NoHeader", form("CIMG", form("TBMP", "")), IMG_ERR_READ},
    {"HeaderEnds", form("CIMG", header({1, 1})).substr(0, 43), IMG_ERR_READ},
    {"HeaderIsTooShort", form("CIMG", chunk("TBHD", std::string(20, '\0')) + form("TBMP", "")),
     IMG_ERR_READ},
    {"ThreeBytesPerSample", whole({1, 1, 0, 2}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"OtherCompression", whole({1, 1, 0, 0, 1, 2}, {1}), IMG_ERR_SUBTYPE},
    {"WiderThanTilesReach", file({65537, 1, 0}, tile({0, 0, 0, 0}, {1})), IMG_ERR_CORRUPT},
    {"HigherThanTilesReach", file({1, 65537, 0}, tile({0, 0, 0, 0}, {1})), IMG_ERR_CORRUPT},
    {"NoTiles", form("CIMG", header({1, 1})), IMG_ERR_READ},
    {"OneTileTooFew", whole({1, 1, 0, 0, 2}, {1}), IMG_ERR_READ},
    {"ChunkPastTheFile",
     form("CIMG", chunk("AUTH", "abc").replace(4, 4, be(4, 0xffffffff)) + header({1, 1})),
     IMG_ERR_READ},
    {"TileWithoutBounds", file({1, 1, 0}, chunk("RGBA", "1234567")), IMG_ERR_CORRUPT},
    {"TileRightOfTheImage", file({2, 1, 0}, tile({1, 0, 2, 0}, {1, 2})), IMG_ERR_CORRUPT},
    {"TileAboveTheImage", file({1, 2, 0}, tile({0, 1, 0, 2}, {1, 2})), IMG_ERR_CORRUPT},
    {"TileFromRightToLeft", file({2, 1, 0}, tile({1, 0, 0, 0}, {1, 2})), IMG_ERR_CORRUPT},
    {"TileFromTopToBottom", file({1, 2, 0}, tile({0, 1, 0, 0}, {1, 2})), IMG_ERR_CORRUPT},
};
const std::vector<test::Refusal> kTiles = {
    {"RawTileEnds", whole({2, 1}, {1, 2, 3, 4, 5}), IMG_ERR_READ, 0},
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
    {"MoreThanPacketsCanGive", whole({200, 200, 0, 0, 1, 1}, {0xff, 1, 0xff, 1}), IMG_ERR_CORRUPT,
     0},
    {"NoPackets", encoded(3, {}), IMG_ERR_CORRUPT, 0},
    {"PacketsEnd", encoded(5, {0x83, 1}), IMG_ERR_CORRUPT, 0},
    {"LiteralsEnd", encoded(5, {4, 1, 2}), IMG_ERR_CORRUPT, 0},
    {"RunWithoutItsValue", encoded(5, {0x84}), IMG_ERR_CORRUPT, 0},
    {"RunPastThePlane", encoded(5, {0x85, 1}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastThePlane", encoded(5, {0x82, 1, 2, 1}), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", whole({1, 1, 0}, {1}), IMG_ERR_READ, 1},
};
TEST(Iff, RefusalsAreTold) {
  for (const auto& refusals : {kHeaders, kTiles}) test::expect_refusals(refusals);
}

TEST(Iff, StripsBehindACorruptOneAreRead) {
  test::OpenFile in(
      file({3, 2, 0, 0, 2, 1}, tile({0, 0, 2, 0}, {0x83, 1}) + tile({0, 1, 2, 1}, {0x82, 5})));
  EXPECT_FALSE(in.read_line());
  EXPECT_TRUE(in.read_line());
  EXPECT_EQ(in.planes(), test::flat(3, {5}));
}

// A written file: the bounds and sizes of its tiles.
struct WrittenTile {
  Bounds bounds;
  std::size_t bytes;
};
constexpr std::size_t kFirstTile = 12 + 32 + 12;

std::vector<WrittenTile> tiles_of(const std::string& text) {
  std::vector<WrittenTile> tiles;
  const std::vector<std::uint8_t> file(text.begin(), text.end());
  ka::ByteCursor in(file);
  for (in.skip(kFirstTile); in.left() > 0;) {
    in.skip(4);
    const std::uint32_t size = in.be32();
    const int x1 = in.be16(), y1 = in.be16(), x2 = in.be16(), y2 = in.be16();
    tiles.push_back({{x1, y1, x2, y2}, size - ka::kIffBoundsBytes});
    in.skip((size + 3) / 4 * 4 - ka::kIffBoundsBytes);
  }
  return tiles;
}

// Encoded: 4 equal samples and two more take 5 bytes instead of 6, and padding.
TEST(Iff, WritesTheseBytes) {
  EXPECT_EQ(test::written(kIff, IMG_TYPE_S, {{{7, 7, 7, 7, 1, 2}}}),
            whole({6, 1, 0, 0, 1, 1}, {0x83, 7, 1, 1, 2}));
  EXPECT_EQ(
      test::written(kIff, IMG_TYPE_RGB_16,
                    {test::flat(2, {0x102, 0x304, 5}), {{0x102, 0x102}, {0x304, 0x304}, {5, 6}}}),
      whole({2, 2, 1, 1, 1, 1}, {0x83, 0, 0x83, 3, 0x83, 1, 0x82, 5, 0, 6, 0x83, 4, 0x83, 2}));
  // three bytes do not become fewer
  EXPECT_EQ(test::written(kIff, IMG_TYPE_RGBA, {{{1}, {2}, {3}, {4}}}),
            whole({1, 1, 3, 0, 1, 1}, {4, 3, 2, 1}));
  const std::string depths = test::written(kIff, IMG_TYPE_Z, {test::flat(3, {0x1020304})});
  EXPECT_EQ(depths, whole({3, 1, 4, 3, 1, 1}, {0x82, 1, 0x82, 2, 0x82, 3, 0x82, 4}, "ZBUF"));
  test::expect_refusal({"depths are not read", depths, IMG_ERR_FORMAT});
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
      {16384, 33, {{0, 0, 1023, 31}, {15360, 32, 16383, 32}}, 32},
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
  test::expect_picture(scalars("", written, test::lines_of(image.get())));
}

// Stretches of equal samples in tiles of all sample sizes, read from the top down.
TEST(Iff, LinesAreReadInAnyOrder) {
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA_16, IMG_TYPE_S_FP}) {
    std::mt19937 random(8);
    test::Lines lines(150, test::Planes(std::size_t(ka_img_ncomp[type])));
    for (auto& planes : lines) {
      for (auto& plane : planes) {
        while (plane.size() < 100) plane.resize(plane.size() + random() % 20, random() & 255);
        plane.resize(100);
      }
    }
    test::OpenFile in(test::written(kIff, type, lines));
    ASSERT_EQ(in->type, type);
    for (int y = 149; y >= 0; --y) {
      in->line_count = y;
      ASSERT_TRUE(in.read_line()) << y;
      ASSERT_EQ(in.planes(), lines[std::size_t(y)]) << y;
    }
  }
}

TEST(Iff, RefusalsTellTheHeightOfTheHeader) {
  const std::string told = test::message_of(form("CIMG", header({7, 5}) + form("TBMP", "")));
  EXPECT_TRUE(told.ends_with(": can't read line 1 of 5, incomplete file")) << told;
}

// Noise in two strips of 64 lines, the first of which passes the limit.
TEST(Iff, NothingIsWrittenBehindAStripThatFailed) {
  constexpr int width = 4096, height = 128, failing_line = 63;
  const test::Limit disk(RLIMIT_FSIZE, 1000);
  test::NewFile out(kIff, IMG_TYPE_S, width, height);
  std::mt19937 random(7);
  for (int x = 0; x < width; ++x) test::plane(out.line(), test::kA)[x] = std::uint8_t(random());
  for (int y = 0; y < failing_line; ++y) ASSERT_TRUE(out.write_line()) << y;
  for (int y = failing_line; y < height; ++y) {
    ASSERT_FALSE(out.write_line()) << y;
    EXPECT_EQ(out->error, IMG_ERR_WRITE);
    EXPECT_EQ(out->os_error, EFBIG);
    ASSERT_FALSE(out->data.p) << y;
  }
  EXPECT_TRUE(out.close());
  EXPECT_FALSE(test::exists(out.path()));
}

// 17 forms, one inside the other.
TEST(Iff, ChunksNestSixteenDeep) {
  const test::Scratch scratch;
  std::string nested = "1234";
  for (int i = 0; i < 17; ++i) nested = form("NEST", nested);
  img_file in{};
  in.stream = std::fopen(scratch.write("a", nested).c_str(), "rb");
  in.file_size = std::int64_t(nested.size());
  ka::FileReader reader;
  reader.start(&in, 0);
  ka::IffStack stack;
  ka::IffChunk chunk;
  for (std::size_t i = 0; i < 16; ++i) {
    ASSERT_TRUE(ka::img_iff_read_begin_chunk(reader, stack, chunk)) << i;
    EXPECT_EQ(chunk.start, 12 * i);
  }
  EXPECT_FALSE(ka::img_iff_read_begin_chunk(reader, stack, chunk));
  for (int i = 0; i < 16; ++i) EXPECT_TRUE(ka::img_iff_read_end_chunk(reader, stack)) << i;
  EXPECT_EQ(reader.position(), nested.size());
  EXPECT_FALSE(ka::img_iff_read_end_chunk(reader, stack));
  std::fclose(in.stream);
}

}  // namespace
