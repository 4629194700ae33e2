// Tiled IFF images: the tiles that are written, lines in any order, failures, nested chunks.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <sys/resource.h>

#include <random>

#include "formats/img_iff.h"
#include "pictures.h"

namespace {

using test::be;

constexpr int kIff = IMG_FORMAT_IFF;

struct Bounds {
  int x1, y1, x2, y2;
  bool operator==(const Bounds&) const = default;
};

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
    EXPECT_EQ(written.substr(20, 8) + written.substr(38, 2),
              be(4, width) + be(4, height) + be(2, int(count)));
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

// A tile of 40000 bytes whose packets have 4.
TEST(Iff, NoMemoryIsAskedForThatPacketsCannotFill) {
  test::OpenFile in(test::read_file(LUMORA_CORPUS "/iff/more_than_packets_can_give.case"));
  const std::size_t before = ka_mem_getsize();
  EXPECT_FALSE(in.read_line());
  EXPECT_LT(ka_mem_getsize(), before + 200 * 200);
}

// 17 forms, one inside the other.
TEST(Iff, ChunksNestSixteenDeep) {
  const test::Scratch scratch;
  std::string nested = "1234";
  for (int i = 0; i < 17; ++i)
    nested = "FOR4" + be(4, std::int64_t(nested.size()) + 4) + "NEST" + nested;
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
