// JPEG beside the programs of its codec: cjpeg writes what we read, djpeg reads what we write, and
// both give the same pixels.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support.h"

namespace {

// Where a program stands, empty when it is not installed.
std::string find_program(const std::string& name) {
  const char* const folders = std::getenv("PATH");
  std::istringstream in(folders ? folders : "");
  for (std::string folder; std::getline(in, folder, ':');) {
    if (test::exists(folder + "/" + name)) return folder + "/" + name;
  }
  return "";
}

void run(const std::string& program, const std::vector<std::string>& arguments) {
  const test::Outcome outcome = test::run(program, {.arguments = arguments});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
}

// Waves of different length in each channel.
test::Image waves(int width, int height) {
  test::Image image = test::make_image(IMG_TYPE_RGB, width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      test::plane(image.get(), y, test::kR)[x] = std::uint8_t((x * x + 3 * y) % 251);
      test::plane(image.get(), y, test::kG)[x] = std::uint8_t((5 * x + y * y / 3) % 253);
      test::plane(image.get(), y, test::kB)[x] = std::uint8_t(x * y % 256);
    }
  }
  return image;
}

void expect_same(const img_image* a, const img_image* b) {
  ASSERT_TRUE(a && b);
  ASSERT_EQ(a->width, b->width);
  ASSERT_EQ(a->height, b->height);
  for (int y = 0; y < a->height; ++y) {
    for (const std::size_t slot : {test::kR, test::kG, test::kB}) {
      ASSERT_EQ(test::samples<std::uint8_t>(test::plane(a, y, slot), a->width),
                test::samples<std::uint8_t>(test::plane(b, y, slot), b->width))
          << y;
    }
  }
}

class JpegPrograms : public testing::Test {
 protected:
  void SetUp() override {
    if (cjpeg.empty() || djpeg.empty()) GTEST_SKIP() << "cjpeg and djpeg are not installed";
  }

  // Our reading of a file against that of djpeg.
  void expect_same_pixels(const std::string& jpeg) {
    const std::string decoded = scratch.path("decoded.ppm");
    run(djpeg, {"-rgb", "-ppm", "-outfile", decoded, jpeg});
    expect_same(test::read_image(jpeg, IMG_TYPE_RGB).get(),
                test::read_image(decoded, IMG_TYPE_RGB).get());
  }

  const std::string cjpeg = find_program("cjpeg"), djpeg = find_program("djpeg");
  const test::Scratch scratch;
};

TEST_F(JpegPrograms, ReadWhatIsWritten) {
  for (const auto& [width, height] : {std::pair{1, 1}, {16, 16}, {67, 45}, {300, 3}}) {
    SCOPED_TRACE(width);
    const std::string jpeg = scratch.path("a.jpg");
    ASSERT_EQ(test::write_image(jpeg, IMG_FORMAT_JPG, waves(width, height).get()), IMG_ERR_NONE);
    expect_same_pixels(jpeg);
  }
}

TEST_F(JpegPrograms, WriteWhatIsRead) {
  const std::string picture = scratch.path("a.ppm"), jpeg = scratch.path("a.jpg");
  ASSERT_EQ(test::write_image(picture, IMG_FORMAT_PPM, waves(67, 45).get()), IMG_ERR_NONE);
  const std::vector<std::vector<std::string>> kinds = {
      {},
      {"-progressive"},
      {"-arithmetic"},
      {"-arithmetic", "-progressive"},
      {"-grayscale"},
      {"-rgb"},
      {"-optimize", "-quality", "5"},
      {"-quality", "100", "-sample", "1x1"},
      {"-sample", "2x1"},
      {"-sample", "1x2"},
      {"-sample", "4x1", "-progressive"},
      {"-restart", "1"},
      {"-restart", "2B", "-progressive"},
      {"-smooth", "50"},
  };
  for (std::vector<std::string> arguments : kinds) {
    std::string kind;
    for (const std::string& argument : arguments) kind += " " + argument;
    SCOPED_TRACE("cjpeg" + kind);
    arguments.insert(arguments.end(), {"-outfile", jpeg, picture});
    run(cjpeg, arguments);
    expect_same_pixels(jpeg);
  }
}

}  // namespace
