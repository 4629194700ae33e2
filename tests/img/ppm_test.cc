// Portable pixmaps: headers, the three kinds of pixels, the bytes that are written.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <clocale>
#include <random>

#include "pictures.h"

namespace {

using test::bytes;

constexpr int kPpm = IMG_FORMAT_PPM;
constexpr char kLetters[] = "abcdefghijklABCDEFGHIJKL";

// The pixels start right behind the header of 4 by 2 pixels.
TEST(Ppm, TakesTheseHeaders) {
  const test::Lines letters = {{{'A', 'D', 'G', 'J'}, {'B', 'E', 'H', 'K'}, {'C', 'F', 'I', 'L'}},
                               {{'a', 'd', 'g', 'j'}, {'b', 'e', 'h', 'k'}, {'c', 'f', 'i', 'l'}}};
  for (const std::string header :
       {"P6\n4\n2\n255\n", "P6 4 2 255\n", "P6\n# created\n4 2  255\n",
        "P6\n# 1 2\n#\n4 2\n# 3\n255\n", "P6#a\n4#b\n2 #c\n255#d\n", "P6\r\n4\t2\r\n255\r\n",
        "P6\n4 2\n255 \t\n", "P64 2 255\n", "P6\n0004 02 0255\n", "P6\n4 2\n65535\n",
        "P6\n4 2\n99999999999999999999\n", "P6\n4 2\n1.5e-3\n"}) {
    test::expect_pictures(kPpm, IMG_TYPE_RGB, {{header.c_str(), header + kLetters, letters}});
  }
  for (const std::string header : {"PF\n1 1  0.0 1.0\n", "PF 1 1 1e-3\n2E-1\n"}) {
    SCOPED_TRACE(header);
    test::expect_picture(
        {"", header + "1 0.5 0.25", kPpm, IMG_TYPE_RGBE, {{{128}, {64}, {32}, {129}}}});
  }
}

TEST(Ppm, RefusesTheseHeaders) {
  for (const std::string header :
       {"P6\n4 2\n255 ", "P6\n4 2\n255 9\n", "PF\n4 2\n0 1 2\n", "PF\n4 2\n1.0\n",
        "PF\n4 2\n-1.0 1.0\n", "P6\n-4 2\n255\n", "P6\n4.0 2\n255\n", "P6\n4 2\n.5\n",
        "P6\nfour 2\n255\n", "P6\n4294967300 2\n255\n", "P6\n4 4294967298\n255\n",
        "P6\n4 2\n255 #"}) {
    test::expect_refusals({{header.c_str(), header + kLetters, IMG_ERR_CORRUPT}});
  }
  for (const std::string other : {"P5\n4 2\n255\n", "P2\n4 2\n255\n", "P4\n4 2\n", "p6\n4 2\n255\n",
                                  "Pf\n4 2\n1.0 1.0\n", " P6\n4 2\n255\n"}) {
    test::expect_refusals({{other.c_str(), other + kLetters, IMG_ERR_FORMAT}});
  }
}

// More than a byte for each of the 24 samples counts if the range does not fit a byte.
TEST(Ppm, SamplesOfTwoBytesAreRefused) {
  const std::string letters = kLetters;
  test::expect_refusals({{"Whole", "P6\n4 2\n256\n" + letters + letters, IMG_ERR_SUBTYPE},
                         {"CutOff", "P6\n4 2\n65535\n" + letters + "a", IMG_ERR_SUBTYPE}});
  EXPECT_EQ(test::line_errors("P6\n4 2\n255\n" + letters + letters), (std::vector{0, 0}));
  EXPECT_EQ(test::line_errors("P6\n4 2\n65535\n" + letters.substr(1)),
            (std::vector{0, int(IMG_ERR_READ)}));
}

struct TextCase {
  const char* name;
  std::string pixels;
  test::Planes line;
  int error = IMG_ERR_NONE;
};

const std::vector<TextCase> kDecimal = {
    {"SeparatedByAnyBlank", "1 2\t3\n4\r\n5\n\n  6\n", {{1, 4}, {2, 5}, {3, 6}}},
    {"HeldAt255",
     "255 256 300 4294967297 1 99999999999999999999",
     {{255, 255}, {255, 1}, {255, 255}}},
    {"NegativeIsNone", "-1 -0 -300 -4 5 06\n", {{0, 0}, {0, 5}, {0, 6}}},
    {"MinusNeedsADigit", "1 2 - 3 4 5\n", {{1, 0}, {2, 0}, {0, 0}}, IMG_ERR_CORRUPT},
    {"FileEndsEarly", "1 2 3 4 5 ", {{1, 4}, {2, 5}, {3, 0}}, IMG_ERR_CORRUPT},
};

// Mantissas are component / 2^(e - 128) * 256 with the exponent of the largest component.
const std::vector<TextCase> kFloat = {
    {"OneIsHalfOfTwo", "1 0.5 0.25\t25 1.e0 7", {{128, 200}, {64, 8}, {32, 56}, {129, 133}}},
    {"Black", "0 0.0 -0\n-1 -2 -3\n1e-33 0 0\n", test::Planes(4, {0, 0, 0})},
    {"TextIsNone", "red 1 , 1,5 .. 0\n", {{0, 128}, {128, 0}, {0, 0}, {129, 129}}},
    {"NoNumberIsNone", "nan 1 -nan nan nan nan\n", {{0, 0}, {128, 0}, {0, 0}, {129, 0}}},
    {"TooMuchIsTheMost", "inf 1 0\n1 1e400 0\n", {{255, 0}, {0, 255}, {0, 0}, {255, 255}}},
    // 255 characters are a number of their own: 10, 25, 7
    {"LongNumberIsTwo", "1e" + std::string(252, '0') + "125 7\n", {{80}, {200}, {56}, {133}}},
    {"FileEndsEarly", "1 0.5", {{0}, {0}, {0}, {0}}, IMG_ERR_READ},
};

void expect_line(const TextCase& text, const std::string& magic, const std::string& range,
                 int type) {
  SCOPED_TRACE(text.name);
  const std::string width = std::to_string(text.line[0].size());
  test::OpenFile file(magic + " " + width + " 1 " + range + "\n" + text.pixels);
  EXPECT_EQ(file->file_type, type);
  EXPECT_EQ(file.read_line(), text.error == IMG_ERR_NONE);
  EXPECT_EQ(file->error, text.error);
  EXPECT_EQ(file.planes(), text.line);
}
TEST(Ppm, NumbersGiveALine) {
  for (const TextCase& text : kDecimal) expect_line(text, "P3", "255", IMG_TYPE_RGB);
  for (const TextCase& text : kFloat) expect_line(text, "PF", "0 1", IMG_TYPE_RGBE);
}

TEST(Ppm, ReadingGoesOnBehindACharacterThatIsNoSample) {
  test::OpenFile file("P3 1 2 255\n1 x 7 8 9");
  EXPECT_FALSE(file.read_line());
  EXPECT_TRUE(file.read_line());
  EXPECT_EQ(file.planes(), (test::Planes{{7}, {8}, {9}}));
}

// Lines that are longer than any buffer, and a file that ends inside the second one.
TEST(Ppm, LongLinesAreWrittenAndRead) {
  std::mt19937 random(4);
  test::Lines lines(2, test::Planes(3, std::vector<std::uint32_t>(100'001)));
  for (test::Planes& planes : lines) {
    for (auto& plane : planes) std::ranges::generate(plane, [&] { return random() & 255; });
  }
  std::string file = test::written(kPpm, IMG_TYPE_RGB, lines);
  test::expect_picture({"", file, kPpm, IMG_TYPE_RGB, lines});
  file.pop_back();
  test::expect_refusal({"", file, IMG_ERR_READ, 1});
}

TEST(Ppm, WritesTheseBytes) {
  const std::string comment = "# created by Brannock lumoralib\n";
  EXPECT_EQ(test::written(kPpm, IMG_TYPE_RGB, {{{255}, {0}, {'#'}}, {{'R'}, {'G'}, {'\n'}}}),
            "P6\n" + comment + "1 2  255\nRG\n" + bytes({255, 0, '#'}));
  EXPECT_EQ(test::written(kPpm, IMG_TYPE_RGB_16, {{{1, 65535}, {2, 0}, {3, 7}}}),
            "P3\n" + comment + "2 1  65535\n1 2 3\t65535 0 7\n");
  // six digits, an exponent where it is shorter
  const auto number = [](float value) { return std::bit_cast<std::uint32_t>(value); };
  EXPECT_EQ(test::written(kPpm, IMG_TYPE_RGB_FP,
                          {{{number(1), number(-0.5F)},
                            {number(0.1F), number(1234567)},
                            {number(0.00001F), number(123456)}}}),
            "PF\n" + comment + "2 1  0.0 1.0\n1 0.1 1e-05\t-0.5 1.23457e+06 123456\n");
  // 128.5 / 128, 64.5 / 128, 32.5 / 128; without an exponent nothing counts
  EXPECT_EQ(test::written(kPpm, IMG_TYPE_RGBE, {{{128, 9}, {64, 9}, {32, 9}, {129, 0}}}),
            "PF\n" + comment + "2 1  0.0 1.0\n1.00391 0.503906 0.253906\t0 0 0\n");
}

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
