// PostScript and Encapsulated PostScript: what is read of which text, the text that is written,
// what is refused.
#include <gtest/gtest.h>

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

using test::flat, test::repeated, test::written;

const std::string kTwoTexts = repeated(13, "010203") + "\n010203\n";

test::Picture grey(const char* name, const std::string& file, const test::Lines& lines) {
  return {name, file, kPs, kGrey, lines};
}

const std::vector<test::Picture> kPictures = {
    {"Encapsulated", kEpsStart + data(" 1 1 color\n", "010203\n"), kEps, kRgb, {{{1}, {2}, {3}}}},
    {"ColoursInTwoTexts", page("\t14  1c\n", kTwoTexts), kPs, kRgb, {flat(14, {1, 2, 3})}},
    grey("TopLineFirst", page(" 2 2 gray\n", "0180\n02ff\n"), {{{2, 255}}, {{1, 128}}}),
    grey("LinesOfTheProlog", kPsStart + "gsave\n\n% lu image\n" + data(" 1 1 gray\n", "07\n"),
         {{{7}}}),
    grey("UpperCaseWithoutLineFeed", page(" 2 1 gray\n", "ABcD"), {{{0xab, 0xcd}}}),
    grey("LineOfOneFullText",
         page(" 39 2 gray\n", repeated(39, "05") + "\n" + repeated(39, "06") + "\n"),
         {flat(39, {6}), flat(39, {5})}),
    grey("TextOf256CharactersIsTwo", page(" 1 2 gray\n", "01" + std::string(253, 'x') + "02\n"),
         {{{2}}, {{1}}}),
    grey("WhatFollowsTheLastLine", page(" 1 1 gray\n", "01\nxy\n"), {{{1}}}),
};
TEST(Ps, PicturesAreRead) { test::expect_pictures(kPictures); }

const std::string kPixel = data(" 1 1 gray\n", "01\n");

const std::vector<test::Refusal> kRefusals = {
    {"OtherVersion", "%!PS-Adobe-2.0\n%%Creator: Lumora\n" + kPixel, IMG_ERR_FORMAT},
    {"OtherCreator", "%!PS-Adobe-3.0\n%%Creator: Lumora 2\n" + kPixel, IMG_ERR_SUBTYPE},
    {"CreatorInTheThirdLine", "%!PS-Adobe-3.0\n%%Title: a\n%%Creator: Lumora\n" + kPixel,
     IMG_ERR_SUBTYPE},
    {"CreatorInTheSecondLineOfEps", "%!PS-Adobe-3.0 EPSF-3.0\n%%Creator: Lumora\n" + kPixel,
     IMG_ERR_SUBTYPE},
    {"CreatorIsCutOff", "%!PS-Adobe-3.0\n%%Creator: Lumora", IMG_ERR_SUBTYPE},
    {"NoHeight", page(" 1 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"OtherKind", page(" 1 1 rgb\n", "01\n"), IMG_ERR_CORRUPT},
    {"NegativeWidth", page(" -1 1 gray\n", "01\n"), IMG_ERR_CORRUPT},
    {"NoLineBehindTheData", kPsStart + "% lu image data 1 1 gray\n", IMG_ERR_CORRUPT},
    {"SecondLineIsMissing", page(" 1 2 gray\n", "01\n"), IMG_ERR_CORRUPT, 1},
    {"TextEndsInsideAPixel", page(" 2 1 color\n", "0102030405\n"), IMG_ERR_CORRUPT, 0},
    {"SecondTextIsMissing", page(" 40 1 gray\n", repeated(39, "01") + "\n"), IMG_ERR_CORRUPT, 0},
};
TEST(Ps, RefusalsAreTold) { test::expect_refusals(kRefusals); }

// What a digit may be: every other byte is refused, in either place.
TEST(Ps, TakesHexadecimalDigitsOnly) {
  for (int byte = 1; byte < 256; ++byte) {
    for (const std::string& text : {std::string{char(byte), '0'}, std::string{'0', char(byte)}}) {
      SCOPED_TRACE(byte);
      const std::string file = page(" 1 1 gray\n", text);
      if (std::isxdigit(byte)) {
        test::expect_picture(grey("", file, {{{std::uint32_t(std::stoi(text, nullptr, 16))}}}));
      } else {
        test::expect_refusal({"", file, IMG_ERR_CORRUPT, 0});
      }
    }
  }
}

TEST(Ps, WritesThisPage) {
  EXPECT_EQ(written(kPs, kRgb,
                    {{{1, 4, 7}, {2, 5, 8}, {3, 6, 9}}, {{255, 0, 0}, {0, 10, 0}, {0, 160, 1}}}),
            "%!PS-Adobe-3.0\n%%Creator: Lumora\n%%Title: (No title)\n%%EndComments\n"
            "%%EndProlog\n%%Page: 1 1\ngsave\nclippath pathbbox\n3 index /LLx exch def\n"
            "2 index /LLy exch def\n1 index /URx exch def\n0 index /URy exch def\n"
            "pop pop pop pop\n\n% scale image to fit the default pagesize\n"
            "LLy URy sub abs /y_dim exch def\nLLx URx sub abs /x_dim exch def\nx_dim y_dim ge\n"
            "{ /width x_dim 0 sub def /height y_dim 0 sub def }\n"
            "{ /width y_dim 0 sub def /height x_dim 0 sub def }\nifelse\n"
            "/aspect_ratio height width div def\n2.0 3.0 div aspect_ratio ge\n"
            "{ /hsf height 2 div def /wsf hsf def }\n"
            "{ /hsf width 3 div def /wsf hsf def } ifelse\n90 rotate\ngsave\n"
            "LLy 0 add height LLx add 0 add neg translate\nwsf hsf scale\nnewpath\n\n"
            "/picstr 3 string def\n/luimage {\n  3 2 8\t\t% dimensions\n"
            "  [ 3 0 0 -2 0 2]\t% mapping matrix\n  { currentfile picstr readhexstring pop }\n"
            "  false 3 colorimage\n} def\ngsave\n3 2 scale\n% lu image data 3 2 color\n"
            "luimage\nff0000000aa0000001\n010203040506070809\ngrestore\ngrestore\ngrestore\n"
            "showpage\n%%Trailer\n");
}

TEST(Eps, WritesThisFile) {
  EXPECT_EQ(written(kEps, kGrey, {{{1, 2, 3}}, {{4, 5, 255}}}),
            "%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 3 2\n%%Creator: Lumora\n"
            "%%Title: (No title)\n%%EndComments\n%%EndProlog\n%%Page: 1 1\ngsave\n"
            "/picstr 3 string def\n/luimage {\n  3 2 8\t\t% dimensions\n"
            "  [ 3 0 0 -2 0 2]\t% mapping matrix\n  { currentfile picstr readhexstring pop }\n"
            "  image\n} def\ngsave\n3 2 scale\n% lu image data 3 2 gray\nluimage\n0405ff\n"
            "010203\ngrestore\ngrestore\nshowpage\n%%Trailer\n");
}

// The header comes with the first line: without any there is nothing to end. A picture of no lines
// has its header.
TEST(Ps, TrailerEndsWhatHasAHeader) {
  test::NewFile file(kEps, kGrey, 1, 1);
  EXPECT_TRUE(file.close());
  EXPECT_EQ(file.contents(), "");
  EXPECT_TRUE(written(kEps, test::make_image(kGrey, 5, 0).get())
                  .ends_with("% lu image data 5 0 gray\nluimage\n"
                             "grestore\ngrestore\nshowpage\n%%Trailer\n"));
}

// 39 samples fill a line of text; there is no empty one behind a full one.
TEST(Ps, WritesFullLinesOfText) {
  const auto text_of = [](int type, const test::Lines& lines) {
    const std::string text = written(kEps, type, lines);
    const std::size_t start = text.find("luimage\n", text.find("% lu")) + 8;
    return text.substr(start, text.find("grestore") - start);
  };
  EXPECT_EQ(text_of(kRgb, {flat(20, {1, 2, 3})}),
            repeated(13, "010203") + "\n" + repeated(7, "010203") + "\n");
  EXPECT_EQ(text_of(kGrey, {flat(39, {5}), flat(39, {6})}),
            repeated(39, "06") + "\n" + repeated(39, "05") + "\n");
  EXPECT_EQ(text_of(kGrey, {flat(40, {5})}), repeated(39, "05") + "\n05\n");
}

}  // namespace
