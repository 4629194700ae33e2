// Pictures that go through other programs where these are installed: what we write they read, and
// the other way round. Pixels travel beside them as PPM.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>
#include <span>

#include "support.h"

namespace {

void run(const std::string& program, const std::vector<std::string>& arguments) {
  const test::Outcome outcome = test::run(program, {.arguments = arguments});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
}

using Sample = std::function<std::uint32_t(int x, int y, std::size_t slot)>;

test::Image picture(int type, int width, int height, const Sample& sample) {
  test::Image image = test::make_image(type, width, height);
  for (int y = 0; y < height; ++y) {
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      std::uint8_t* const plane = test::plane(image.get(), y, slot);
      for (int x = 0; plane && x < width; ++x) plane[x] = std::uint8_t(sample(x, y, slot));
    }
  }
  return image;
}

// Noise with runs in it.
test::Image noise(int type) {
  std::mt19937 random(11);
  std::array<std::uint32_t, IMG_SLOTS> color{};
  return picture(type, 61, 47, [&](int, int, std::size_t slot) {
    if (random() % 4 == 0) color[slot] = std::uint32_t(random());
    return color[slot];
  });
}

// The largest difference of two pictures of a size, in rgb; `skipped` columns of every 16 do not
// count.
int largest_difference(const img_image* a, const img_image* b, int skipped = 0) {
  int largest = 0;
  for (int y = 0; y < a->height; ++y) {
    for (std::size_t slot = 0; slot < 3; ++slot) {
      const std::uint8_t* const p = test::plane(a, y, slot);
      const std::uint8_t* const q = test::plane(b, y, slot);
      for (int x = 0; x < a->width; ++x) {
        if (x % 16 < skipped || x % 16 >= 16 - skipped) continue;
        largest = std::max(largest, std::abs(p[x] - q[x]));
      }
    }
  }
  return largest;
}

void expect_equal(const img_image* a, const img_image* b, int tolerance = 0, int skipped = 0) {
  ASSERT_TRUE(a && b);
  ASSERT_EQ(a->width, b->width);
  ASSERT_EQ(a->height, b->height);
  EXPECT_LE(largest_difference(a, b, skipped), tolerance);
}

test::Image read_rgb(const std::string& path) { return test::read_image(path, IMG_TYPE_RGB); }

std::vector<std::string> ffmpeg_arguments(std::initializer_list<const char*> input,
                                          std::initializer_list<const char*> output) {
  std::vector<std::string> arguments = {"-loglevel", "error", "-y"};
  arguments.insert(arguments.end(), input.begin(), input.end());
  arguments.insert(arguments.end(), output.begin(), output.end());
  return arguments;
}

TEST(Alias, GoesThroughFfmpeg) {
  const std::string ffmpeg = test::find_program("ffmpeg");
  if (ffmpeg.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const test::Scratch scratch;
  const test::Image image = noise(IMG_TYPE_RGB);
  const std::string ours = scratch.path("ours.pix"), pixels = scratch.path("pixels.ppm"),
                    theirs = scratch.path("theirs.pix");
  ASSERT_EQ(test::write_image(ours, IMG_FORMAT_ALIAS, image.get()), IMG_ERR_NONE);
  run(ffmpeg, ffmpeg_arguments({"-i", ours.c_str()},
                               {"-update", "1", "-pix_fmt", "rgb24", pixels.c_str()}));
  expect_equal(image.get(), read_rgb(pixels).get());
  run(ffmpeg, ffmpeg_arguments({"-i", pixels.c_str()},
                               {"-update", "1", "-pix_fmt", "bgr24", theirs.c_str()}));
  expect_equal(image.get(), read_rgb(theirs).get());
}

// Stripes 16 columns wide. Other programs filter chroma and round in ways of their own, so the
// edges do not count.
TEST(Quantel, GoesThroughFfmpeg) {
  const std::string ffmpeg = test::find_program("ffmpeg");
  if (ffmpeg.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const test::Scratch scratch;
  const test::Image image = picture(IMG_TYPE_RGB, 720, 576, [](int x, int y, std::size_t slot) {
    return std::uint32_t((x / 16 * 37 + y / 64 * 11) * int(slot + 1) + 40 * int(slot)) % 256;
  });
  const std::string ours = scratch.path("ours.qnt"), pixels = scratch.path("pixels.ppm"),
                    theirs = scratch.path("theirs.qnt");
  ASSERT_EQ(test::write_image(ours, IMG_FORMAT_QNTPAL, image.get()), IMG_ERR_NONE);
  run(ffmpeg, ffmpeg_arguments(
                  {"-f", "rawvideo", "-pix_fmt", "uyvy422", "-s", "720x576", "-i", ours.c_str()},
                  {"-update", "1", "-pix_fmt", "rgb24", pixels.c_str()}));
  expect_equal(image.get(), read_rgb(pixels).get(), 5, 3);
  run(ffmpeg, ffmpeg_arguments({"-i", pixels.c_str()},
                               {"-f", "rawvideo", "-pix_fmt", "uyvy422", theirs.c_str()}));
  expect_equal(read_rgb(pixels).get(), read_rgb(theirs).get(), 5, 3);
}

// Ghostscript draws a point as a pixel.
void draw(const std::string& program, const std::string& file, const std::string& pixels,
          std::initializer_list<const char*> page) {
  std::vector<std::string> arguments = {"-q",   "-dSAFER",         "-dBATCH",
                                        "-r72", "-sDEVICE=ppmraw", "-dNOPAUSE"};
  arguments.insert(arguments.end(), page.begin(), page.end());
  arguments.push_back("-sOutputFile=" + pixels);
  arguments.push_back(file);
  run(program, arguments);
}

TEST(Eps, IsDrawnByGhostscript) {
  const std::string gs = test::find_program("gs");
  if (gs.empty()) GTEST_SKIP() << "Ghostscript is not installed";
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_S}) {
    SCOPED_TRACE(type);
    const test::Scratch scratch;
    const std::string file = scratch.path("a.eps"), pixels = scratch.path("pixels.ppm");
    const test::Image image = noise(type);
    ASSERT_EQ(test::write_image(file, IMG_FORMAT_EPS, image.get()), IMG_ERR_NONE);
    draw(gs, file, pixels, {"-dEPSCrop"});
    expect_equal(read_rgb(file).get(), read_rgb(pixels).get());
  }
}

// The picture turned to the left, as it lies on a page.
test::Image turned(const img_image* image) {
  return picture(IMG_TYPE_RGB, image->height, image->width,
                 [image](int x, int y, std::size_t slot) -> std::uint32_t {
                   return test::plane(image, image->height - 1 - x, slot)[y];
                 });
}

// A page as wide as the picture is high, and twice that.
TEST(Ps, IsDrawnByGhostscript) {
  const std::string gs = test::find_program("gs");
  if (gs.empty()) GTEST_SKIP() << "Ghostscript is not installed";
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_S}) {
    SCOPED_TRACE(type);
    const test::Scratch scratch;
    const std::string file = scratch.path("a.ps"), pixels = scratch.path("pixels.ppm");
    const test::Image image = noise(type);
    ASSERT_EQ(test::write_image(file, IMG_FORMAT_PS, image.get()), IMG_ERR_NONE);
    const test::Image expected = turned(read_rgb(file).get());
    draw(gs, file, pixels, {"-dDEVICEWIDTHPOINTS=47", "-dDEVICEHEIGHTPOINTS=61"});
    expect_equal(expected.get(), read_rgb(pixels).get());
    const test::Image doubled =
        picture(IMG_TYPE_RGB, 94, 122, [&](int x, int y, std::size_t slot) -> std::uint32_t {
          return test::plane(expected.get(), y / 2, slot)[x / 2];
        });
    draw(gs, file, pixels, {"-dDEVICEWIDTHPOINTS=94", "-dDEVICEHEIGHTPOINTS=122"});
    expect_equal(doubled.get(), read_rgb(pixels).get());
  }
}

}  // namespace
