// Portable pixmaps: locales, and headers that claim much.
#include <gtest/gtest.h>

#include <clocale>

#include "pictures.h"

namespace {

constexpr int kPpm = IMG_FORMAT_PPM;

TEST(Ppm, NumbersKeepTheirPointInLocalesWithCommas) {
  for (const char* const name : {"de_DE.UTF-8", "de_DE", "fr_FR.UTF-8", "fr_FR", "es_ES.UTF-8"}) {
    if (std::setlocale(LC_ALL, name)) break;
  }
  const bool has_commas = std::string(std::localeconv()->decimal_point) == ",";
  EXPECT_TRUE(test::written(kPpm, IMG_TYPE_RGBE, {{{128}, {64}, {32}, {129}}})
                  .ends_with("1.00391 0.503906 0.253906\n"));
  test::expect_picture(
      {"", "PF 1 1 0 1\n0.5 0 0\n", kPpm, IMG_TYPE_RGBE, {{{128}, {0}, {0}, {128}}}});
  std::setlocale(LC_ALL, "C");
  if (!has_commas) GTEST_SKIP() << "no such locale is installed: only the C locale was tried";
}

// What a header claims costs nothing until lines are read.
TEST(Ppm, VeryWideHeadersCostNothingToOpen) {
  for (const char* bytes : {"PF\n2147483646 1  0.0 1.0\n1 2 3\n", "P6\n990999999 0\n255\n"}) {
    const test::Scratch scratch;
    test::Handle file;
    EXPECT_EQ(ka_img_open(file, scratch.write("wide.ppm", bytes).c_str(), IMG_TYPE_RGBA), 1);
    EXPECT_EQ(file->conversion, nullptr);
  }
}

}  // namespace
