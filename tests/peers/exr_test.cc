// OpenEXR files between this library and other programs: both find the same pixels.
#include <gtest/gtest.h>
#include <ka/drivers.h>

#include <cstring>

#include "support.h"

namespace {

void shell(const std::string& command) {
  const test::Outcome outcome = test::run("/bin/sh", {.arguments = {"-c", command}});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

void expect_equal(const test::Image& a, const test::Image& b) {
  ASSERT_TRUE(a && b);
  ASSERT_EQ(std::pair(a->width, a->height), std::pair(b->width, b->height));
  ASSERT_EQ(a->type, b->type);
  for (int y = 0; y < a->height; ++y) {
    for (std::size_t slot = 0; slot < std::size_t(a->components); ++slot) {
      const std::size_t size = sizeof(float) * std::size_t(a->width);
      ASSERT_EQ(std::memcmp(test::plane(a.get(), y, slot), test::plane(b.get(), y, slot), size), 0);
    }
  }
}

TEST(Exr, HasTheSamePixelsInOpenImageIo) {
  if (test::find_program("oiiotool").empty()) GTEST_SKIP() << "oiiotool is not installed";
  ASSERT_TRUE(ka_drivers_register());
  const test::Scratch scratch;
  const std::string exr = scratch.path("a.exr"), tif = scratch.path("a.tif");
  const std::string tool = "oiiotool --no-autopremult ", other = scratch.path("b.exr");
  shell(tool + "--pattern noise 130x70 4 -d half -o " + tif);
  for (const char* const compression :
       {"none", "rle", "zips", "zip", "piz", "pxr24", "b44", "b44a"}) {
    for (const char* const shape : {"", " --tile 32 16 -d float"}) {
      SCOPED_TRACE(std::string(compression) + shape);
      shell(tool + tif + shape + " --compression " + compression + " -o " + exr);
      shell(tool + exr + " -d float --compression none -o " + other);  // decoded there
      expect_equal(test::read_image(exr, IMG_TYPE_FILE), test::read_image(other, IMG_TYPE_FILE));
    }
  }
}

TEST(Exr, WhatIsWrittenIsReadByOtherPrograms) {
  ASSERT_TRUE(ka_drivers_register());
  const test::Scratch scratch;
  const std::string exr = scratch.path("a.exr"), other = scratch.path("b.exr");
  test::Image image = test::make_image(IMG_TYPE_RGBA_FP, 301, 50);
  for (int y = 0; y < 50; ++y) {
    for (std::size_t i = 0; i < 4 * 301U; ++i) {
      reinterpret_cast<float*>(test::plane(image.get(), y, i / 301))[i % 301] =
          float((i * i + std::size_t(y)) % 256) / 256;  // is a half
    }
  }
  ASSERT_EQ(test::write_image(exr, KA_DRIVERS_EXR, image.get()), IMG_ERR_NONE);
  expect_equal(test::read_image(exr, IMG_TYPE_FILE), image);
  for (const auto& [program, command] :
       {std::pair{"oiiotool",
                  "oiiotool --no-autopremult " + exr + " --compression piz -o " + other},
        {"ffmpeg", "ffmpeg -v error -y -i " + exr + " " + other}}) {
    if (test::find_program(program).empty()) continue;
    shell(command);
    expect_equal(test::read_image(other, IMG_TYPE_FILE), image);
  }
}

}  // namespace
