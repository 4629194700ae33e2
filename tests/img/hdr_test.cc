// Radiance pictures: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>

#include "pictures.h"

namespace {

using test::bytes;
using test::flat;
using test::Lines;
using test::Planes;

constexpr int kHdr = IMG_FORMAT_HDR, kRgbe = IMG_TYPE_RGBE;
const std::string kHead = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

// One line, whose scanline header is given too.
std::string line(int width, std::initializer_list<int> scanline) {
  return kHead + "-Y 1 +X " + std::to_string(width) + "\n" + bytes(scanline);
}
const std::string kScanline = bytes({2, 2, 0, 1, 1, 7, 1, 8, 1, 9, 1, 128});
const Lines kPixel = {{{7}, {8}, {9}, {128}}};

// A header with one more line in front of the one that names the encoding; one pixel behind it.
std::string header(const std::string& before, const std::string& magic = "#?RADIANCE") {
  return magic + "\n" + before + "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n" + kScanline;
}

// Two lines of three pixels whose samples are 1 to 3 and 4 to 6 in file order, in every plane.
std::string two_lines(const std::string& resolution) {
  std::string file = kHead + resolution + "\n";
  for (const int i : {1, 4}) {
    file += bytes({2, 2, 0, 3});
    for (int plane = 0; plane < 4; ++plane) file += bytes({3, i, i + 1, i + 2});
  }
  return file;
}
const Lines kTopFirst = {Planes(4, {4, 5, 6}), Planes(4, {1, 2, 3})};
const Lines kBottomFirst = {Planes(4, {1, 2, 3}), Planes(4, {4, 5, 6})};
const Lines kTopMirrored = {Planes(4, {6, 5, 4}), Planes(4, {3, 2, 1})};
const Lines kBottomMirrored = {Planes(4, {3, 2, 1}), Planes(4, {6, 5, 4})};

const std::vector<test::Shown> kPictures = {
    // the last line that is looked at begins at byte 1024: 11 bytes and 1013
    {"EncodingFarBehind", header(std::string(1012, 'c') + "\n"), kPixel},
    {"OlderMagic", header("", "#?LUMORA - HDR image created by Lumora"), kPixel},
    // 127 characters, the line feed with them
    {"LongResolution", kHead + "-Y 1 +X 1" + std::string(117, ' ') + "\n" + kScanline, kPixel},
    {"TopFirst", two_lines("-Y 2 +X 3"), kTopFirst},
    {"WidthFirstMirrored", two_lines("-X 3 +Y 2"), kBottomMirrored},
    {"SmallLettersWithoutBlanks", two_lines("-y2+x3"), kTopFirst},
    // axes take turns, beginning with x; a sign holds until the next one
    {"NumbersOnly", two_lines("3 2"), kBottomFirst},
    {"OneSign", two_lines("-Y 2 3"), kTopMirrored},
    {"RunsAndLiterals",
     line(5, {2, 2, 0, 5, 133, 5, 2, 1, 2, 131, 9, 130, 7, 131, 8, 133, 4}),
     {{{5, 5, 5, 5, 5}, {1, 2, 9, 9, 9}, {7, 7, 8, 8, 8}, {4, 4, 4, 4, 4}}}},
    {"LongestLiterals",
     line(128, {2, 2, 0, 128}) + '\x80' + std::string(128, '\1') +
         bytes({255, 2, 1, 2, 255, 3, 1, 3, 255, 4, 1, 4}),
     {flat(128, {1, 2, 3, 4})}},
    {"EmptyPackets", line(1, {2, 2, 0, 1, 0, 0, 0, 0, 1, 7, 0, 1, 8, 129, 9, 1, 128}), kPixel},
};
TEST(Hdr, PicturesAreRead) { test::expect_pictures(kHdr, kRgbe, kPictures); }

const std::vector<test::Refusal> kRefusals = {
    {"OtherMagic", header("", "#?RGBE"), IMG_ERR_FORMAT},
    {"OtherEncoding", "#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 1\n", IMG_ERR_FORMAT},
    {"EncodingTooFarBehind", header(std::string(1013, 'c') + "\n"), IMG_ERR_FORMAT},
    {"NoEmptyLine", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n-Y 1 +X 1\n", IMG_ERR_SIZE},
    {"SecondLineEnds", two_lines("-Y 3 +X 3"), IMG_ERR_SIZE, 2},
};
TEST(Hdr, RefusalsAreTold) { test::expect_refusals(kRefusals); }

// Why a file is refused is told among the debug messages.
TEST(Hdr, FaultsAreTold) {
  constexpr char kResolution[] = "img_open_hdr: bad resolution line";
  constexpr char kTooLong[] = "img_read_hdr: scanline too long";
  constexpr char kStart[] = "img_read_hdr: line doesn't begin with 2 2";
  constexpr char kWidth[] = "img_read_hdr: wrong line header length";
  constexpr char kEmpty[] = "img_read_hdr: wrong line length after RLE";
  constexpr char kEnd[] = "img_read_hdr: EOF";
  const std::pair<const char*, test::Refusal> faults[] = {
      {kResolution, {"NoHeight", two_lines("+X 3"), IMG_ERR_CORRUPT}},
      {kResolution, {"WidthOf0", two_lines("-Y 2 +X 0"), IMG_ERR_CORRUPT}},
      {kResolution, {"HeightPastAnInt", two_lines("-Y 2147483648 +X 3"), IMG_ERR_CORRUPT}},
      {kResolution, {"WidthPastScanlines", two_lines("-Y 2 +X 65536"), IMG_ERR_CORRUPT}},
      {kStart, {"FlatPixels", line(1, {7, 8, 9, 128}), IMG_ERR_CORRUPT, 0}},
      {kWidth, {"OtherWidth", line(641, {2, 2, 2, 128}), IMG_ERR_CORRUPT, 0}},
      {kTooLong, {"Run", line(3, {2, 2, 0, 3, 132, 1}), IMG_ERR_CORRUPT, 0}},
      {kTooLong, {"128", line(2, {2, 2, 0, 2, 128}) + std::string(128, 1), IMG_ERR_CORRUPT, 0}},
      {kTooLong, {"Second", line(3, {2, 2, 0, 3, 130, 1, 2, 1, 2}), IMG_ERR_CORRUPT, 0}},
      {kEmpty, {"Empty", line(3, {2, 2, 0, 3}) + std::string(200'000, 0), IMG_ERR_CORRUPT, 0}},
      {kEnd, {"LiteralsEnd", line(3, {2, 2, 0, 3, 3, 1}), IMG_ERR_SIZE, 0}},
      {kEnd, {"RunWithoutItsByte", line(3, {2, 2, 0, 3, 131}), IMG_ERR_SIZE, 0}},
      {kEnd, {"NoLine", line(3, {}), IMG_ERR_SIZE, 0}}};
  for (const auto& [message, refusal] : faults) {
    SCOPED_TRACE(refusal.name);
    const test::MessageLog log(KA_DEBUG);
    test::expect_refusal(refusal);
    EXPECT_EQ(std::ranges::count(log.lines(), std::string("IMG   .0  debug: ") + message), 1);
  }
}

// Packets hold at most 127 bytes; what is left of a run is a literal when it is a single byte.
TEST(Hdr, WritesTheseBytes) {
  const std::string head =
      "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\nSOFTWARE=Lumora version 3.2.0.320 10 Oct 2002\n\n";
  const Planes top = {{5, 5, 6, 7, 8, 8, 8, 9},
                      {1, 2, 3, 4, 5, 6, 7, 7},
                      {9, 9, 9, 9, 9, 9, 9, 9},
                      {1, 1, 2, 2, 3, 3, 4, 4}};
  EXPECT_EQ(test::written(kHdr, kRgbe, {flat(8, {1, 2, 3, 4}), top}),
            head + "-Y 2 +X 8\n" +
                bytes({2, 2, 0, 8, 130, 5, 2,   6, 7,   131, 8,   1, 9,   6, 1,   2,
                       3, 4, 5, 6, 130, 7, 136, 9, 130, 1,   130, 2, 130, 3, 130, 4}) +
                bytes({2, 2, 0, 8, 136, 1, 136, 2, 136, 3, 136, 4}));
  Planes wide = flat(256, {1, 0, 3, 4});  // 256 = 2 * 127 + 2 = 255 + 1
  std::string literals;
  for (std::size_t i = 0; i < 256; ++i) {
    if (i % 127 == 0) literals += bytes({i < 254 ? 127 : 2});
    literals += char(wide[1][i] = i % 2);
  }
  wide[0].back() = 9;
  EXPECT_EQ(test::written(kHdr, kRgbe, {wide}),
            head + "-Y 1 +X 256\n" + bytes({2, 2, 1, 0, 255, 1, 255, 1, 2, 1, 9}) + literals +
                bytes({255, 3, 255, 3, 130, 3, 255, 4, 255, 4, 130, 4}));
}

}  // namespace
