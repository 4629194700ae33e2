// Tiled IFF images: the tiles that are written, lines in any order.
#include <gtest/gtest.h>
#include <ka/mem.h>

#include <algorithm>
#include <array>
#include <random>

#include "formats/img_iff.h"
#include "pictures.h"

namespace {

using test::be;

constexpr int kIff = IMG_FORMAT_IFF;

using Bounds = std::array<int, 4>;  // left, bottom, right, top

// A written file: the bounds of its tiles, and the bytes of their samples.
struct WrittenTiles {
  explicit WrittenTiles(const std::string& text) {
    constexpr std::size_t first = 12 + 32 + 12;
    const std::vector<std::uint8_t> file(text.begin(), text.end());
    ka::ByteCursor in(file);
    for (in.skip(first); in.left() > 0;) {
      in.skip(4);
      const std::uint32_t size = in.be32();
      bounds.emplace_back();
      for (int& bound : bounds.back()) bound = in.be16();
      bytes.push_back(size - ka::kIffBoundsBytes);
      in.skip((size + 3) / 4 * 4 - ka::kIffBoundsBytes);
    }
  }
  std::vector<Bounds> bounds;
  std::vector<std::size_t> bytes;
};

TEST(Iff, TilesAreOfTheseSizes) {
  const struct {
    int width, height, tile_width, tile_height;
  } rows[] = {{100, 70, 64, 64},    {4096, 1, 64, 64},     {5000, 100, 256, 64},
              {1, 4097, 512, 128},  {600, 4097, 512, 128}, {8192, 65, 256, 64},
              {8193, 33, 1024, 32}, {16384, 33, 1024, 32}, {16385, 33, 2048, 32}};
  for (const auto& [width, height, tile_width, tile_height] : rows) {
    std::vector<Bounds> expected;
    for (int y = 0; y < height; y += tile_height) {
      for (int x = 0; x < width; x += tile_width) {
        expected.push_back(
            {x, y, std::min(x + tile_width, width) - 1, std::min(y + tile_height, height) - 1});
      }
    }
    const std::string written =
        test::written(kIff, test::make_image(IMG_TYPE_S, width, height).get());
    EXPECT_EQ(written.substr(20, 8) + written.substr(38, 2),
              be(4, width) + be(4, height) + be(2, int(expected.size())));
    EXPECT_EQ(WrittenTiles(written).bounds, expected) << width << " x " << height;
  }
}

// Three tiles side by side, two strips: noise in the second tile. Flat tiles take two bytes for 128.
TEST(Iff, StripsGoOnRawBehindATileThatDoesNotCompress) {
  const test::Image image = test::make_image(IMG_TYPE_S, 192, 128);
  std::mt19937 random(7);
  for (int y = 0; y < 64; ++y) {
    for (int x = 64; x < 128; ++x) {
      test::plane(image.get(), y, test::kA)[x] = std::uint8_t(random());
    }
  }
  const std::string written = test::written(kIff, image.get());
  EXPECT_EQ(WrittenTiles(written).bytes, (std::vector<std::size_t>{64, 4096, 4096, 64, 64, 64}));
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

}  // namespace
