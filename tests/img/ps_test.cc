// PostScript and Encapsulated PostScript: what is read of which text, the text that is written,
// what is refused.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <unistd.h>

#include <cctype>

#include "pictures.h"

namespace {

constexpr int kPs = IMG_FORMAT_PS, kEps = IMG_FORMAT_EPS, kRgb = IMG_TYPE_RGB, kGrey = IMG_TYPE_S;

const std::string kPsStart = "%!PS-Adobe-3.0\n%%Creator: Lumora\n";
const std::string kEpsStart =
    "%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 1 1\n%%Creator: Lumora\n";

// `size` is what follows the words of the comment in front of the pixels.
std::string data(const std::string& size, const std::string& text) {
  return "% lu image data" + size + "luimage\n" + text;
}
std::string page(const std::string& size, const std::string& text) {
  return kPsStart + data(size, text);
}

std::string repeated(std::size_t count, std::string_view text) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

using Samples = std::vector<std::uint32_t>;

class PsPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(PsPicture, IsRead) { test::expect_picture(GetParam()); }

const std::vector<test::Picture> kPictures = {
    {"Colours",
     page(" 2 1 color\n", "010203a0b0ff\n"),
     kPs,
     kRgb,
     {{{1, 0xa0}, {2, 0xb0}, {3, 0xff}}}},
    {"Grey", page(" 3 1 gray\n", "0080ff\n"), kPs, kGrey, {{{0, 128, 255}}}},
    {"Encapsulated", kEpsStart + data(" 1 1 color\n", "010203\n"), kEps, kRgb, {{{1}, {2}, {3}}}},
    {"TopLineFirst", page(" 1 2 gray\n", "01\n02\n"), kPs, kGrey, {{{2}}, {{1}}}},
    {"LinesOfTheProlog",
     kPsStart + "gsave\n\n% lu image\n" + data(" 1 1 gray\n", "07\n"),
     kPs,
     kGrey,
     {{{7}}}},
    {"OneLetterAndAnyBlanks", page("\t1  1c\n", "010203\n"), kPs, kRgb, {{{1}, {2}, {3}}}},
    {"NumbersWithASign", page(" +1+1 gray\n", "07\n"), kPs, kGrey, {{{7}}}},
    {"UpperCase", page(" 2 1 gray\n", "ABcD\n"), kPs, kGrey, {{{0xab, 0xcd}}}},
    {"NoLineFeedAtTheEnd", page(" 2 1 gray\n", "0102"), kPs, kGrey, {{{1, 2}}}},
    {"LineOfOneFullText",
     page(" 39 2 gray\n", repeated(39, "05") + "\n" + repeated(39, "06") + "\n"),
     kPs,
     kGrey,
     {{Samples(39, 6)}, {Samples(39, 5)}}},
    {"LineOfTwoTexts",
     page(" 14 1 color\n", repeated(13, "010203") + "\n010203\n"),
     kPs,
     kRgb,
     {{Samples(14, 1), Samples(14, 2), Samples(14, 3)}}},
    {"LinesBeginWithATextOfTheirOwn",
     page(" 1 2 gray\n", "01ff\n02ff\n"),
     kPs,
     kGrey,
     {{{2}}, {{1}}}},
    {"TextOf256CharactersIsTwo",
     page(" 1 2 gray\n", "01" + std::string(253, 'x') + "02\n"),
     kPs,
     kGrey,
     {{{2}}, {{1}}}},
    {"WhatFollowsTheLastLine", page(" 1 1 gray\n", "01\nxy\n"), kPs, kGrey, {{{1}}}},
};
INSTANTIATE_TEST_SUITE_P(Files, PsPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

class PsRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(PsRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kOpeningRefusals = {
    {"OtherVersion", "%!PS-Adobe-2.0\n%%Creator: Lumora\n" + data(" 1 1 gray\n", "01\n"),
     IMG_ERR_FORMAT},
    {"OtherLineEnds", "%!PS-Adobe-3.0\r\n%%Creator: Lumora\r\n", IMG_ERR_FORMAT},
    {"OtherCreator", "%!PS-Adobe-3.0\n%%Creator: Somebody\n" + data(" 1 1 gray\n", "01\n"),
     IMG_ERR_SUBTYPE},
    {"CreatorWithMoreBehind", "%!PS-Adobe-3.0\n%%Creator: Lumora 2\n", IMG_ERR_SUBTYPE},
    {"CreatorInTheThirdLine",
     "%!PS-Adobe-3.0\n%%Title: a\n%%Creator: Lumora\n" + data(" 1 1 gray\n", "01\n"),
     IMG_ERR_SUBTYPE},
    {"CreatorInTheSecondLineOfEps",
     "%!PS-Adobe-3.0 EPSF-3.0\n%%Creator: Lumora\n" + data(" 1 1 gray\n", "01\n"), IMG_ERR_SUBTYPE},
    {"NoSecondLine", "%!PS-Adobe-3.0\n", IMG_ERR_SUBTYPE},
    {"CreatorIsCutOff", "%!PS-Adobe-3.0\n%%Creator: Lumora", IMG_ERR_SUBTYPE},
    {"NoData", kPsStart + "gsave\nshowpage\n", IMG_ERR_CORRUPT},
    {"NoDataRightBehindTheCreator", kPsStart, IMG_ERR_CORRUPT},
    {"NoSize", page("\n", "01\n"), IMG_ERR_CORRUPT},
    {"NoHeight", page(" 1 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"NoKind", page(" 1 1\n", "01\n"), IMG_ERR_CORRUPT},
    {"OtherKind", page(" 1 1 rgb\n", "01\n"), IMG_ERR_CORRUPT},
    {"TwoSigns", page(" +-1 1 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"NegativeWidth", page(" -1 1 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"WidthPastAnInt", page(" 2147483648 1 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"HeightPast32Bits", page(" 1 4294967297 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"NoLineBehindTheData", kPsStart + "% lu image data 1 1 gray\n", IMG_ERR_CORRUPT},
};
INSTANTIATE_TEST_SUITE_P(Opening, PsRefusal, testing::ValuesIn(kOpeningRefusals),
                         test::row_name<test::Refusal>);

const std::vector<test::Refusal> kLineRefusals = {
    {"NoLine", page(" 1 1 gray\n", ""), IMG_ERR_CORRUPT, 0},
    {"SecondLineIsMissing", page(" 1 2 gray\n", "01\n"), IMG_ERR_CORRUPT, 1},
    {"EmptyText", page(" 1 2 gray\n", "\n01\n"), IMG_ERR_CORRUPT, 0},
    {"NoDigit", page(" 2 1 gray\n", "01g0\n"), IMG_ERR_CORRUPT, 0},
    {"HalfASample", page(" 2 1 gray\n", "010\n"), IMG_ERR_CORRUPT, 0},
    {"BlankForADigit", page(" 2 1 gray\n", "01 2\n"), IMG_ERR_CORRUPT, 0},
    {"TextEndsInsideAPixel", page(" 2 1 color\n", "0102030405\n"), IMG_ERR_CORRUPT, 0},
    {"SecondTextIsMissing", page(" 40 1 gray\n", repeated(39, "01") + "\n"), IMG_ERR_CORRUPT, 0},
    {"TrailerInTheMiddle", page(" 1 2 color\n", "010203\ngrestore\n"), IMG_ERR_CORRUPT, 1},
};
INSTANTIATE_TEST_SUITE_P(Lines, PsRefusal, testing::ValuesIn(kLineRefusals),
                         test::row_name<test::Refusal>);

// What a digit may be: every other byte is refused, in either place.
TEST(Ps, TakesHexadecimalDigitsOnly) {
  for (int byte = 1; byte < 256; ++byte) {
    const bool is_digit = std::isxdigit(byte) != 0;
    for (const std::string& text : {std::string{char(byte), '0'}, std::string{'0', char(byte)}}) {
      const test::Scratch scratch;
      test::Handle file;
      ASSERT_TRUE(ka_img_open(file, scratch.write("a", page(" 1 1 gray\n", text)).c_str(), kGrey));
      const test::Line line(ka_img_line_alloc(file));
      ASSERT_EQ(ka_img_line_read(file, line.get()) != 0, is_digit) << byte;
      if (!is_digit) continue;
      EXPECT_EQ(test::plane(line.get(), 3)[0], std::stoi(text, nullptr, 16));
    }
  }
}

// A line of text that the system does not give is missing as any other; the reason is kept.
TEST(Ps, LinesThatTheSystemRefusesAreMissing) {
  constexpr int height = 4000;  // more text than the reader fetches at once
  const test::Scratch scratch;
  const std::string path =
      scratch.write("a", page(" 39 4000 gray\n", repeated(height, repeated(39, "05") + "\n")));
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  const int folder = open("/", O_RDONLY);
  ASSERT_GE(dup2(folder, fileno(file->stream)), 0);
  close(folder);
  const test::Line line(ka_img_line_alloc(file));
  int lines = 0;
  while (lines < height && ka_img_line_read(file, line.get())) ++lines;
  EXPECT_LT(lines, height);
  EXPECT_EQ(file->error, IMG_ERR_CORRUPT);
  EXPECT_EQ(file->os_error, EISDIR);
}

// A header that lies about the width asks for no memory.
TEST(Ps, WidthPastTheFileTakesNoMemory) {
  const test::Scratch scratch;
  const std::size_t before = ka_mem_getsize();
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, scratch.write("a", page(" 2147483647 9 gray\n", "01\n")).c_str(),
                          IMG_TYPE_RGBA));
  EXPECT_LT(ka_mem_getsize() - before, 100'000u);
}

std::string written(int format, int type, int width, const test::Lines& lines) {
  return test::written(format, test::make_picture(type, width, lines).get());
}

TEST(Ps, WritesThisPage) {
  EXPECT_EQ(written(kPs, kRgb, 2, {{{1, 4}, {2, 5}, {3, 6}}, {{255, 0}, {0, 10}, {0, 160}}}),
            "%!PS-Adobe-3.0\n"
            "%%Creator: Lumora\n"
            "%%Title: (No title)\n"
            "%%EndComments\n"
            "%%EndProlog\n"
            "%%Page: 1 1\n"
            "gsave\n"
            "clippath pathbbox\n"
            "3 index /LLx exch def\n"
            "2 index /LLy exch def\n"
            "1 index /URx exch def\n"
            "0 index /URy exch def\n"
            "pop pop pop pop\n"
            "\n"
            "% scale image to fit the default pagesize\n"
            "LLy URy sub abs /y_dim exch def\n"
            "LLx URx sub abs /x_dim exch def\n"
            "x_dim y_dim ge\n"
            "{ /width x_dim 0 sub def /height y_dim 0 sub def }\n"
            "{ /width y_dim 0 sub def /height x_dim 0 sub def }\n"
            "ifelse\n"
            "/aspect_ratio height width div def\n"
            "2.0 2.0 div aspect_ratio ge\n"
            "{ /hsf height 2 div def /wsf hsf def }\n"
            "{ /hsf width 2 div def /wsf hsf def } ifelse\n"
            "90 rotate\n"
            "gsave\n"
            "LLy 0 add height LLx add 0 add neg translate\n"
            "wsf hsf scale\n"
            "newpath\n"
            "\n"
            "/picstr 2 string def\n"
            "/luimage {\n"
            "  2 2 8\t\t% dimensions\n"
            "  [ 2 0 0 -2 0 2]\t% mapping matrix\n"
            "  { currentfile picstr readhexstring pop }\n"
            "  false 3 colorimage\n"
            "} def\n"
            "gsave\n"
            "2 2 scale\n"
            "% lu image data 2 2 color\n"
            "luimage\n"
            "ff0000000aa0\n"
            "010203040506\n"
            "grestore\n"
            "grestore\n"
            "grestore\n"
            "showpage\n"
            "%%Trailer\n");
}

TEST(Ps, WritesWidthAndHeightInTheirPlaces) {
  const std::string text = written(kPs, kGrey, 3, {{{1, 2, 3}}, {{4, 5, 6}}});
  for (const std::string line :
       {"\n2.0 3.0 div aspect_ratio ge\n", "{ /hsf height 2 div", "{ /hsf width 3 div",
        "/picstr 3 string", "\n  3 2 8\t", "\n  [ 3 0 0 -2 0 2]\t", "\n3 2 scale\n"}) {
    EXPECT_NE(text.find(line), text.npos) << line;
  }
}

TEST(Eps, WritesThisFile) {
  EXPECT_EQ(written(kEps, kGrey, 3, {{{1, 2, 3}}, {{4, 5, 255}}}),
            "%!PS-Adobe-3.0 EPSF-3.0\n"
            "%%BoundingBox: 0 0 3 2\n"
            "%%Creator: Lumora\n"
            "%%Title: (No title)\n"
            "%%EndComments\n"
            "%%EndProlog\n"
            "%%Page: 1 1\n"
            "gsave\n"
            "/picstr 3 string def\n"
            "/luimage {\n"
            "  3 2 8\t\t% dimensions\n"
            "  [ 3 0 0 -2 0 2]\t% mapping matrix\n"
            "  { currentfile picstr readhexstring pop }\n"
            "  image\n"
            "} def\n"
            "gsave\n"
            "3 2 scale\n"
            "% lu image data 3 2 gray\n"
            "luimage\n"
            "0405ff\n"
            "010203\n"
            "grestore\n"
            "grestore\n"
            "showpage\n"
            "%%Trailer\n");
}

// The header comes with the first line: without any there is nothing to end. A picture of no lines
// has its header.
TEST(Ps, TrailerEndsWhatHasAHeader) {
  const test::Scratch scratch;
  test::Handle file;
  file->file_type = kGrey;
  ASSERT_TRUE(ka_img_create(file, scratch.path("a").c_str(), kGrey, kEps, 1, 1));
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_EQ(test::read_file(scratch.path("a")), "");
  const test::Image empty = test::make_image(kGrey, 5, 0);
  EXPECT_TRUE(test::written(kEps, empty.get())
                  .ends_with("% lu image data 5 0 gray\nluimage\n"
                             "grestore\ngrestore\nshowpage\n%%Trailer\n"));
}

// 39 samples fill a line of text; there is no empty one behind a full one.
TEST(Ps, WritesFullLinesOfText) {
  const auto text_of = [](int type, int width, const test::Lines& lines) {
    const std::string text = written(kEps, type, width, lines);
    const std::size_t start = text.find("luimage\n", text.find("% lu")) + 8;
    return text.substr(start, text.find("grestore") - start);
  };
  EXPECT_EQ(text_of(kRgb, 20, {{Samples(20, 1), Samples(20, 2), Samples(20, 3)}}),
            repeated(13, "010203") + "\n" + repeated(7, "010203") + "\n");
  EXPECT_EQ(text_of(kRgb, 13, {{Samples(13, 1), Samples(13, 2), Samples(13, 3)}}),
            repeated(13, "010203") + "\n");
  EXPECT_EQ(text_of(kGrey, 39, {{Samples(39, 5)}, {Samples(39, 6)}}),
            repeated(39, "06") + "\n" + repeated(39, "05") + "\n");
  EXPECT_EQ(text_of(kGrey, 40, {{Samples(40, 5)}}), repeated(39, "05") + "\n05\n");
}

}  // namespace
