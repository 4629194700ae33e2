// Pictures that go through other programs where these are installed: what we write they read, and
// the other way round. Pixels travel beside them as PPM.
#include <gtest/gtest.h>

#include "shown.h"

namespace {

using test::expect_equal;
using test::shell;

test::Image read_rgb(const std::string& path) { return test::read_image(path, IMG_TYPE_RGB); }

TEST(Alias, GoesThroughFfmpeg) {
  if (test::find_program("ffmpeg").empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const test::Scratch scratch;
  const test::Image image = test::runs_picture(IMG_TYPE_RGB, 301, 47);
  const std::string ours = scratch.path("ours.pix"), pixels = scratch.path("pixels.ppm"),
                    theirs = scratch.path("theirs.pix");
  ASSERT_EQ(test::write_image(ours, IMG_FORMAT_ALIAS, image.get()), IMG_ERR_NONE);
  shell("ffmpeg -i " + ours + " -update 1 -pix_fmt rgb24 " + pixels);
  expect_equal(image, read_rgb(pixels));
  shell("ffmpeg -i " + pixels + " -update 1 -pix_fmt bgr24 " + theirs);
  expect_equal(image, read_rgb(theirs));
}

// Other programs filter chroma and round in ways of their own, so the edges of the stripes, 16
// columns wide, do not count.
void expect_equal_stripes(const test::Image& a, const test::Image& b) {
  ASSERT_TRUE(a && b && a->width == b->width && a->height == b->height);
  int largest = 0;
  for (int y = 0; y < a->height; ++y) {
    for (int i = 0; i < 3 * a->width; ++i) {
      if (i / 3 % 16 < 3 || i / 3 % 16 >= 13) continue;
      const auto slot = std::size_t(i % 3);
      largest = std::max(largest, std::abs(test::plane(a.get(), y, slot)[i / 3] -
                                           test::plane(b.get(), y, slot)[i / 3]));
    }
  }
  EXPECT_LE(largest, 5);
}

TEST(Quantel, GoesThroughFfmpeg) {
  if (test::find_program("ffmpeg").empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const test::Scratch scratch;
  const test::Image image = test::make_image(IMG_TYPE_RGB, 720, 576);
  for (int i = 0; i < 576 * 720 * 3; ++i) {
    const int slot = i % 3, x = i / 3 % 720, y = i / 3 / 720;
    test::plane(image.get(), y, std::size_t(slot))[x] =
        std::uint8_t((x / 16 * 37 + y / 64 * 11) * (slot + 1) + 40 * slot);
  }
  const std::string ours = scratch.path("ours.qnt"), pixels = scratch.path("pixels.ppm"),
                    theirs = scratch.path("theirs.qnt");
  ASSERT_EQ(test::write_image(ours, IMG_FORMAT_QNTPAL, image.get()), IMG_ERR_NONE);
  shell("ffmpeg -f rawvideo -pix_fmt uyvy422 -s 720x576 -i " + ours + " -update 1 -pix_fmt rgb24 " +
        pixels);
  expect_equal_stripes(image, read_rgb(pixels));
  shell("ffmpeg -i " + pixels + " -f rawvideo -pix_fmt uyvy422 " + theirs);
  expect_equal_stripes(read_rgb(pixels), read_rgb(theirs));
}

// The picture turned to the left and twice as large, as it fills the page below.
test::Image turned(const img_image* image) {
  test::Image page = test::make_image(IMG_TYPE_RGB, 2 * image->height, 2 * image->width);
  for (int y = 0; y < page->height; ++y) {
    for (int i = 0; i < 3 * page->width; ++i) {
      const auto slot = std::size_t(i % 3);
      test::plane(page.get(), y, slot)[i / 3] =
          test::plane(image, image->height - 1 - i / 6, slot)[y / 2];
    }
  }
  return page;
}

// A point is drawn as a pixel.
TEST(PostScript, IsDrawnByGhostscript) {
  if (test::find_program("gs").empty()) GTEST_SKIP() << "Ghostscript is not installed";
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_S}) {
    SCOPED_TRACE(type);
    const test::Scratch scratch;
    const std::string eps = scratch.path("a.eps"), ps = scratch.path("a.ps"),
                      pixels = scratch.path("pixels.ppm");
    const test::Image image = test::runs_picture(type, 61, 47);
    const std::string draw =
        "gs -q -dSAFER -dBATCH -dNOPAUSE -r72 -sDEVICE=ppmraw -sOutputFile=" + pixels;
    ASSERT_EQ(test::write_image(eps, IMG_FORMAT_EPS, image.get()), IMG_ERR_NONE);
    shell(draw + " -dEPSCrop " + eps);
    expect_equal(read_rgb(eps), read_rgb(pixels));

    ASSERT_EQ(test::write_image(ps, IMG_FORMAT_PS, image.get()), IMG_ERR_NONE);
    shell(draw + " -dDEVICEWIDTHPOINTS=94 -dDEVICEHEIGHTPOINTS=122 " + ps);
    expect_equal(turned(read_rgb(ps).get()), read_rgb(pixels));
  }
}

// Both decode alike: what is written here, in several sizes, and what cjpeg writes.
TEST(Jpeg, IsReadAsByTheProgramsOfItsCodec) {
  if (test::find_program("cjpeg").empty() || test::find_program("djpeg").empty()) {
    GTEST_SKIP() << "cjpeg and djpeg are not installed";
  }
  const test::Scratch scratch;
  const std::string picture = scratch.path("a.ppm"), jpeg = scratch.path("a.jpg"),
                    decoded = scratch.path("decoded.ppm");
  const auto expect_same_pixels = [&] {
    shell("djpeg -rgb -ppm -outfile " + decoded + " " + jpeg);
    expect_equal(read_rgb(jpeg), read_rgb(decoded));
  };
  for (const auto& [width, height] : {std::pair{1, 1}, {16, 16}, {300, 3}, {67, 45}}) {
    SCOPED_TRACE(width);
    const test::Image image = test::runs_picture(IMG_TYPE_RGB, width, height);
    ASSERT_EQ(test::write_image(jpeg, IMG_FORMAT_JPG, image.get()), IMG_ERR_NONE);
    ASSERT_EQ(test::write_image(picture, IMG_FORMAT_PPM, image.get()), IMG_ERR_NONE);
    expect_same_pixels();
  }
  for (const std::string kind :
       {"", "-progressive", "-arithmetic", "-arithmetic -progressive", "-grayscale", "-rgb",
        "-optimize -quality 5", "-quality 100 -sample 1x1", "-sample 2x1", "-sample 1x2",
        "-sample 4x1 -progressive", "-restart 1", "-restart 2B -progressive", "-smooth 50"}) {
    SCOPED_TRACE(kind);
    shell("cjpeg " + kind + " -outfile " + jpeg + " " + picture);
    expect_same_pixels();
  }
}

}  // namespace
