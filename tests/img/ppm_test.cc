// Portable pixmaps: headers, the three kinds of pixels, the bytes that are written.
#include <gtest/gtest.h>

#include <clocale>
#include <random>

#include "support.h"

namespace {

using test::bytes;
using Planes = std::vector<std::vector<std::uint8_t>>;

// The first `count` planes of a line.
Planes planes_of(const img_line* line, std::size_t count, int width) {
  Planes planes;
  for (std::size_t slot = 0; slot < count; ++slot) {
    planes.push_back(test::samples<std::uint8_t>(test::plane(line, slot), width));
  }
  return planes;
}
Planes planes_of(const img_image* image, int y) {
  Planes planes;
  for (std::size_t slot = 0; slot < std::size_t(image->components); ++slot) {
    planes.push_back(test::samples<std::uint8_t>(test::plane(image, y, slot), image->width));
  }
  return planes;
}

struct HeaderCase {
  const char* name;
  std::string header;  // of 4 by 2 pixels
  int error;
};

class PpmHeader : public testing::TestWithParam<HeaderCase> {};

TEST_P(PpmHeader, IsReadOrRefused) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a.ppm", GetParam().header + "abcdefghijklABCDEFGHIJKL");
  test::Handle file;
  ASSERT_EQ(ka_img_open(file, path.c_str(), IMG_TYPE_FILE), GetParam().error == IMG_ERR_NONE);
  EXPECT_EQ(file->error, GetParam().error);
  if (GetParam().error != IMG_ERR_NONE) return;
  EXPECT_EQ(file->format, IMG_FORMAT_PPM);
  EXPECT_EQ(file->width, 4);
  EXPECT_EQ(file->height, 2);
  if (GetParam().header[1] != '6') return;
  const test::Line line(ka_img_line_alloc(file));  // the pixels start right behind the header
  ASSERT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(test::plane(line.get(), test::kR)[0], 'a');
  EXPECT_EQ(test::plane(line.get(), test::kB)[3], 'l');
}

const std::vector<HeaderCase> kAccepted = {
    {"OneNumberALine", "P6\n4\n2\n255\n", 0},
    {"OneLine", "P6 4 2 255\n", 0},
    {"AsWritten", "P6\n# created\n4 2  255\n", 0},
    {"CommentLines", "P6\n# 1 2\n#\n4 2\n# 3\n255\n", 0},
    {"CommentsBehindEverything", "P6#a\n4#b\n2 #c\n255#d\n", 0},
    {"TabsAndReturns", "P6\r\n4\t2\r\n255\r\n", 0},
    {"BlanksAtTheEnd", "P6\n4 2\n255 \t\n", 0},
    {"NoBlankBehindTheMagic", "P64 2 255\n", 0},
    {"LeadingZeros", "P6\n0004 02 0255\n", 0},
    {"OtherMaximum", "P6\n4 2\n65535\n", 0},
    {"MaximumBeyondAnyNumber", "P6\n4 2\n99999999999999999999\n", 0},
    {"MaximumAsAFraction", "P6\n4 2\n1.5e-3\n", 0},
    {"Decimal", "P3\n4 2\n255\n", 0},
    {"FloatRange", "PF\n4 2  0.0 1.0\n", 0},
    {"FloatRangeOnTwoLines", "PF 4 2 1e-3\n2E-1\n", 0},
};
INSTANTIATE_TEST_SUITE_P(Accepted, PpmHeader, testing::ValuesIn(kAccepted),
                         test::row_name<HeaderCase>);

const std::vector<HeaderCase> kCorrupt = {
    {"BlankInsteadOfTheLastLineFeed", "P6\n4 2\n255 ", IMG_ERR_CORRUPT},
    {"FourNumbers", "P6\n4 2\n255 9\n", IMG_ERR_CORRUPT},
    {"FloatWithFive", "PF\n4 2\n0 1 2\n", IMG_ERR_CORRUPT},
    {"FloatWithThree", "PF\n4 2\n1.0\n", IMG_ERR_CORRUPT},
    {"NegativeRange", "PF\n4 2\n-1.0 1.0\n", IMG_ERR_CORRUPT},
    {"NegativeWidth", "P6\n-4 2\n255\n", IMG_ERR_CORRUPT},
    {"FractionAsWidth", "P6\n4.0 2\n255\n", IMG_ERR_CORRUPT},
    {"FractionWithoutDigits", "P6\n4 2\n.5\n", IMG_ERR_CORRUPT},
    {"Letters", "P6\nfour 2\n255\n", IMG_ERR_CORRUPT},
    {"WidthBeyondAnyNumber", "P6\n4294967300 2\n255\n", IMG_ERR_CORRUPT},
    {"HeightBeyondAnyNumber", "P6\n4 4294967298\n255\n", IMG_ERR_CORRUPT},
    {"CommentWithoutEnd", "P6\n4 2\n255 #", IMG_ERR_CORRUPT},
};
INSTANTIATE_TEST_SUITE_P(Corrupt, PpmHeader, testing::ValuesIn(kCorrupt),
                         test::row_name<HeaderCase>);

const std::vector<HeaderCase> kOtherKinds = {
    {"Gray", "P5\n4 2\n255\n", IMG_ERR_FORMAT},
    {"DecimalGray", "P2\n4 2\n255\n", IMG_ERR_FORMAT},
    {"Bitmap", "P4\n4 2\n", IMG_ERR_FORMAT},
    {"SmallLetter", "p6\n4 2\n255\n", IMG_ERR_FORMAT},
    {"GrayFloat", "Pf\n4 2\n1.0 1.0\n", IMG_ERR_FORMAT},
    {"BlankInFront", " P6\n4 2\n255\n", IMG_ERR_FORMAT},
};
INSTANTIATE_TEST_SUITE_P(OtherKinds, PpmHeader, testing::ValuesIn(kOtherKinds),
                         test::row_name<HeaderCase>);

struct TextCase {
  const char* name;
  std::string pixels;
  Planes line;
  int error;
};

class PpmText : public testing::TestWithParam<TextCase> {};

TEST_P(PpmText, GivesALine) {
  const TextCase& row = GetParam();
  const bool is_float = row.line.size() == 4;
  const int width = int(row.line[0].size());
  const test::Scratch scratch;
  const std::string header = (is_float ? "PF " : "P3 ") + std::to_string(width) + " 1 0 1";
  const std::string path = scratch.write(
      "a.ppm", header.substr(0, header.size() - (is_float ? 0 : 2)) + "\n" + row.pixels);
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  EXPECT_EQ(file->file_type, is_float ? IMG_TYPE_RGBE : IMG_TYPE_RGB);
  const test::Line line(ka_img_line_alloc(file));
  for (std::size_t slot = 0; slot < row.line.size(); ++slot) {
    std::fill_n(test::plane(line.get(), slot), width, std::uint8_t{99});
  }
  EXPECT_EQ(ka_img_line_read(file, line.get()), row.error == IMG_ERR_NONE);
  EXPECT_EQ(file->error, row.error);
  EXPECT_EQ(planes_of(line.get(), row.line.size(), width), row.line);
}

const std::vector<TextCase> kDecimal = {
    {"SeparatedByAnyBlank", "1 2\t3\n4\r\n5\n\n  6\n", {{1, 4}, {2, 5}, {3, 6}}, 0},
    {"EndsWithTheLastDigit", "1 2 3 4 5 6", {{1, 4}, {2, 5}, {3, 6}}, 0},
    {"HeldAt255",
     "255 256 300 65535 4294967297 99999999999999999999 ",
     {{255, 255}, {255, 255}, {255, 255}},
     0},
    {"NegativeIsNone", "-1 -0 -300 -4 5 06\n", {{0, 0}, {0, 5}, {0, 6}}, 0},
    {"NothingBehindALetter", "1 2 3 4 x 6\n", {{1, 4}, {2, 0}, {3, 0}}, IMG_ERR_CORRUPT},
    {"NothingBehindAFraction", "1 2.5 3 4 5 6\n", {{1, 0}, {2, 0}, {0, 0}}, IMG_ERR_CORRUPT},
    {"MinusNeedsADigit", "1 2 - 3 4 5\n", {{1, 0}, {2, 0}, {0, 0}}, IMG_ERR_CORRUPT},
    {"PlusIsNoDigit", "1 +2 3 4 5 6\n", {{1, 0}, {0, 0}, {0, 0}}, IMG_ERR_CORRUPT},
    {"NoComments", "1 2 3\n# 4\n4 5 6\n", {{1, 0}, {2, 0}, {3, 0}}, IMG_ERR_CORRUPT},
    {"FileEndsEarly", "1 2 3 4 5 ", {{1, 4}, {2, 5}, {3, 0}}, IMG_ERR_CORRUPT},
};
INSTANTIATE_TEST_SUITE_P(Decimal, PpmText, testing::ValuesIn(kDecimal), test::row_name<TextCase>);

// Mantissas are component / 2^(e - 128) * 256 with the exponent of the largest component.
const std::vector<TextCase> kFloat = {
    {"OneIsHalfOfTwo", "1 0.5 0.25\t25 1.e0 7", {{128, 200}, {64, 8}, {32, 56}, {129, 133}}, 0},
    {"ExponentsAndSigns", "1e0 +5E-1 25e-2\n", {{128}, {64}, {32}, {129}}, 0},
    {"Black", "0 0.0 -0\n-1 -2 -3\n1e-33 0 0\n", {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}, 0},
    {"TextIsNone", "red 1 , 1,5 .. 0\n", {{0, 128}, {128, 0}, {0, 0}, {129, 129}}, 0},
    {"NoNumberIsNone", "nan 1 -nan nan nan nan\n", {{0, 0}, {128, 0}, {0, 0}, {129, 0}}, 0},
    {"TooMuchIsTheMost", "inf 1 0\n1 1e400 0\n", {{255, 0}, {0, 255}, {0, 0}, {255, 255}}, 0},
    // 255 characters are a number of their own: 10, 25, 7
    {"LongNumberIsTwo", "1e" + std::string(252, '0') + "125 7\n", {{80}, {200}, {56}, {133}}, 0},
    {"FileEndsEarly", "1 0.5", {{99}, {99}, {99}, {99}}, IMG_ERR_READ},
};
INSTANTIATE_TEST_SUITE_P(Float, PpmText, testing::ValuesIn(kFloat), test::row_name<TextCase>);

TEST(Ppm, ReadingGoesOnBehindACharacterThatIsNoSample) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a.ppm", "P3 1 2 255\n1 x 7 8 9");
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_RGB));
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_FALSE(ka_img_line_read(file, line.get()));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(planes_of(line.get(), 3, 1), (Planes{{7}, {8}, {9}}));
  EXPECT_EQ(file->line_count, 2);
}

// Lines that are longer than any buffer, and a file that ends inside the second one.
TEST(Ppm, LongLinesAreWrittenAndRead) {
  constexpr int width = 100001;
  const test::Scratch scratch;
  const std::string path = scratch.path("a.ppm");
  const test::Image image = test::make_image(IMG_TYPE_RGB, width, 2);
  std::mt19937 random(4);
  for (int y = 0; y < 2; ++y) {
    for (std::size_t slot = 0; slot < 3; ++slot) {
      std::generate_n(test::plane(image.get(), y, slot), width,
                      [&] { return std::uint8_t(random()); });
    }
  }
  ASSERT_EQ(test::write_image(path, IMG_FORMAT_PPM, image.get()), IMG_ERR_NONE);
  const test::Image read = test::read_image(path, IMG_TYPE_RGB);
  ASSERT_TRUE(read);
  for (int y = 0; y < 2; ++y) EXPECT_EQ(planes_of(read.get(), y), planes_of(image.get(), y));

  std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_RGB));
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_FALSE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
}

// A picture of one line and two pixels.
template <typename Sample>
test::Image two_pixels(int type, const std::vector<std::vector<Sample>>& planes) {
  test::Image image = test::make_image(type, 2, 1);
  for (std::size_t slot = 0; slot < planes.size(); ++slot) {
    test::set_samples(test::plane(image.get(), 0, slot), planes[slot]);
  }
  return image;
}

std::string written(img_image* image) {
  const test::Scratch scratch;
  EXPECT_EQ(test::write_image(scratch.path("a"), IMG_FORMAT_PPM, image), IMG_ERR_NONE);
  return test::read_file(scratch.path("a"));
}

TEST(Ppm, WritesTheseBytes) {
  const std::string comment = "# created by Brannock lumoralib\n";
  const test::Image rgb =
      two_pixels<std::uint8_t>(IMG_TYPE_RGB, {{'R', 255}, {'G', 0}, {'\n', '#'}});
  EXPECT_EQ(written(rgb.get()), "P6\n" + comment + "2 1  255\nRG\n" + bytes({255, 0, '#'}));

  const test::Image rgb_16 =
      two_pixels<std::uint16_t>(IMG_TYPE_RGB_16, {{1, 65535}, {2, 0}, {3, 7}});
  EXPECT_EQ(written(rgb_16.get()), "P3\n" + comment + "2 1  65535\n1 2 3\t65535 0 7\n");

  // six digits, an exponent where it is shorter
  const test::Image rgb_fp =
      two_pixels<float>(IMG_TYPE_RGB_FP, {{1, -0.5F}, {0.1F, 1234567}, {0.00001F, 123456}});
  EXPECT_EQ(written(rgb_fp.get()),
            "PF\n" + comment + "2 1  0.0 1.0\n1 0.1 1e-05\t-0.5 1.23457e+06 123456\n");

  // 128.5 / 128, 64.5 / 128, 32.5 / 128; without an exponent nothing counts
  const test::Image rgbe =
      two_pixels<std::uint8_t>(IMG_TYPE_RGBE, {{128, 9}, {64, 9}, {32, 9}, {129, 0}});
  EXPECT_EQ(written(rgbe.get()),
            "PF\n" + comment + "2 1  0.0 1.0\n1.00391 0.503906 0.253906\t0 0 0\n");
}

TEST(Ppm, TopLineIsWrittenFirst) {
  const test::Image image = test::make_image(IMG_TYPE_RGB, 1, 3);
  for (int y = 0; y < 3; ++y) test::plane(image.get(), y, test::kR)[0] = std::uint8_t('0' + y);
  const std::string file = written(image.get());
  EXPECT_EQ(file.substr(file.size() - 9), bytes({'2', 0, 0, '1', 0, 0, '0', 0, 0}));
}

// Every mantissa is written as the middle of its range, so it comes back.
TEST(Ppm, SharedExponentColoursSurviveTheText) {
  constexpr int width = 2000;
  const test::Scratch scratch;
  const test::Image image = test::make_image(IMG_TYPE_RGBE, width, 1);
  std::mt19937 random(5);
  for (std::size_t x = 0; x < width; ++x) {
    for (std::size_t slot = 0; slot < 3; ++slot) {
      test::plane(image.get(), 0, slot)[x] = std::uint8_t(random());
    }
    test::plane(image.get(), 0, x % 3)[x] |= 128;  // the encoder's largest mantissa
    test::plane(image.get(), 0, test::kA)[x] = std::uint8_t(40 + random() % 210);
  }
  ASSERT_EQ(test::write_image(scratch.path("a"), IMG_FORMAT_PPM, image.get()), IMG_ERR_NONE);
  const test::Image read = test::read_image(scratch.path("a"), IMG_TYPE_FILE);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->type, IMG_TYPE_RGBE);
  EXPECT_EQ(planes_of(read.get(), 0), planes_of(image.get(), 0));
}

TEST(Ppm, NumbersKeepTheirPointInLocalesWithCommas) {
  for (const char* const name : {"de_DE.UTF-8", "de_DE", "fr_FR.UTF-8", "fr_FR", "es_ES.UTF-8"}) {
    if (std::setlocale(LC_ALL, name)) break;
  }
  const bool has_commas = std::string(std::localeconv()->decimal_point) == ",";
  const test::Image image = two_pixels<float>(IMG_TYPE_RGB_FP, {{0.5F, 1}, {0, 1}, {0, 1}});
  const std::string file = written(image.get());
  const test::Scratch scratch;
  const test::Image read =
      test::read_image(scratch.write("a", "PF 1 1 0 1\n0.5 0 0\n"), IMG_TYPE_FILE);
  std::setlocale(LC_ALL, "C");
  EXPECT_NE(file.find("0.5 0 0\t"), std::string::npos);
  ASSERT_TRUE(read);
  EXPECT_EQ(planes_of(read.get(), 0), (Planes{{128}, {0}, {0}, {128}}));
  if (!has_commas) GTEST_SKIP() << "no such locale is installed: only the C locale was tried";
}

// What a header claims costs nothing until lines are read.
TEST(Ppm, VeryWideHeadersCostNothingToOpen) {
  const test::Scratch scratch;
  for (const char* bytes : {"PF\n2147483646 1  0.0 1.0\n1 2 3\n", "P6\n990999999 0\n255\n"}) {
    const std::string name = scratch.write("wide.ppm", bytes);
    test::Handle file;
    EXPECT_EQ(ka_img_open(file, name.c_str(), IMG_TYPE_RGBA), 1);
    EXPECT_EQ(file->conversion, nullptr);
  }
}

}  // namespace
