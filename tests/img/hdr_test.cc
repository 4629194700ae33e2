// Radiance pictures: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <numeric>

#include "pictures.h"

namespace {

using test::bytes, test::flat;
using Samples = std::vector<std::uint32_t>;

constexpr int kHdr = IMG_FORMAT_HDR, kRgbe = IMG_TYPE_RGBE;

const std::string kHead = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

// Bytes of scanlines behind a header with this resolution line.
std::string file(const std::string& resolution, std::initializer_list<int> scanlines) {
  return kHead + resolution + "\n" + bytes(scanlines);
}
// One line, whose scanline header is given too.
std::string line(int width, std::initializer_list<int> scanline) {
  return file("-Y 1 +X " + std::to_string(width), scanline);
}
const std::string kScanline = bytes({2, 2, 0, 1, 1, 7, 1, 8, 1, 9, 1, 128});
// A header with one more line in front of the one that names the encoding; one pixel behind it.
std::string header(const std::string& before) {
  return "#?RADIANCE\n" + before + "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n" + kScanline;
}

const test::Lines kPixel = {{{7}, {8}, {9}, {128}}};

const std::vector<test::Shown> kHeaders = {
    {"EncodingOnly", header(""), kPixel},
    {"OtherLines", header("# comment\nEXPOSURE=2\n"), kPixel},
    {"BlanksBeforeTheEncoding", header(" \t "), kPixel},
    // the last line that is looked at begins at byte 1024: 11 bytes and 1013
    {"EncodingFarBehind", header(std::string(1012, 'c') + "\n"), kPixel},
    {"OlderMagic",
     "#?LUMORA - HDR image created by Lumora\n" + header("").substr(kHead.find('\n') + 1), kPixel},
    // 127 characters, the line feed with them
    {"LongResolutionLine", kHead + "-Y 1 +X 1" + std::string(117, ' ') + "\n" + kScanline, kPixel},
};

// Two lines of three pixels whose samples are 1 to 3 and 4 to 6 in file order, in every plane.
std::string two_lines(const std::string& resolution) {
  std::string scanlines;
  for (const int first : {1, 4}) {
    scanlines += bytes({2, 2, 0, 3});
    for (int plane = 0; plane < 4; ++plane) {
      scanlines += bytes({3, first, first + 1, first + 2});
    }
  }
  return kHead + resolution + "\n" + scanlines;
}
test::Lines lines_of_samples(const Samples& bottom, const Samples& top) {
  return {test::Planes(4, bottom), test::Planes(4, top)};
}
const test::Lines kTopFirst = lines_of_samples({4, 5, 6}, {1, 2, 3});
const test::Lines kBottomFirst = lines_of_samples({1, 2, 3}, {4, 5, 6});
const test::Lines kTopFirstMirrored = lines_of_samples({6, 5, 4}, {3, 2, 1});
const test::Lines kBottomFirstMirrored = lines_of_samples({3, 2, 1}, {6, 5, 4});

const std::vector<test::Shown> kResolutions = {
    {"TopFirst", two_lines("-Y 2 +X 3"), kTopFirst},
    {"BottomFirst", two_lines("+Y 2 +X 3"), kBottomFirst},
    {"TopFirstMirrored", two_lines("-Y 2 -X 3"), kTopFirstMirrored},
    {"BottomFirstMirrored", two_lines("+Y 2 -X 3"), kBottomFirstMirrored},
    {"WidthFirst", two_lines("+X 3 -Y 2"), kTopFirst},
    {"WidthFirstBottomFirst", two_lines("+X 3 +Y 2"), kBottomFirst},
    {"WidthFirstMirrored", two_lines("-X 3 -Y 2"), kTopFirstMirrored},
    {"WidthFirstBottomFirstMirrored", two_lines("-X 3 +Y 2"), kBottomFirstMirrored},
    {"SmallLettersWithoutBlanks", two_lines("-y2+x3"), kTopFirst},
    // axes take turns, beginning with x; a sign holds until the next one
    {"NumbersOnly", two_lines("3 2"), kBottomFirst},
    {"OneSign", two_lines("-Y 2 3"), kTopFirstMirrored},
    {"TheLastOfTwoHeights", two_lines("+Y 9 -Y 2 +X 3"), kTopFirst},
};

Samples counted(std::uint32_t count) {
  Samples samples(count);
  std::iota(samples.begin(), samples.end(), 0);
  return samples;
}
std::string literals_128() {
  const Samples samples = counted(128);
  return bytes({128}) + std::string(samples.begin(), samples.end());
}

const std::vector<test::Shown> kScanlines = {
    {"RunsAndLiterals",
     line(8, {2, 2, 0, 8, 136, 5, 3, 1, 2, 3, 133, 9, 130, 7, 134, 8, 8, 1, 2, 3, 4, 5, 6, 7, 8}),
     {{Samples(8, 5),
       {1, 2, 3, 9, 9, 9, 9, 9},
       {7, 7, 8, 8, 8, 8, 8, 8},
       {1, 2, 3, 4, 5, 6, 7, 8}}}},
    {"LongestRun",
     line(127, {2, 2, 0, 127, 255, 1, 255, 2, 255, 3, 255, 4}),
     {flat(127, {1, 2, 3, 4})}},
    {"LongestLiterals",
     line(128, {2, 2, 0, 128}) + test::repeated(4, literals_128()),
     {test::Planes(4, counted(128))}},
    {"EmptyPackets", line(1, {2, 2, 0, 1, 0, 0, 0, 0, 1, 7, 0, 1, 8, 129, 9, 1, 128}), kPixel},
    {"BytesBehindTheLastLine", header("") + "more", kPixel},
};
TEST(Hdr, PicturesAreRead) {
  for (const auto& pictures : {kHeaders, kResolutions, kScanlines}) {
    test::expect_pictures(kHdr, kRgbe, pictures);
  }
}

const std::vector<test::Refusal> kOtherFiles = {
    {"OtherMagic", "#?RGBE" + header("").substr(10), IMG_ERR_FORMAT},
    {"MagicWithMoreBehind", "#?RADIANCE 2" + header("").substr(10), IMG_ERR_FORMAT},
    {"MagicOnly", "#?RADIANCE", IMG_ERR_FORMAT},
    {"NoEncoding", "#?RADIANCE\n\nFORMAT=32-bit_rle_rgbe\n", IMG_ERR_FORMAT},
    {"OtherEncoding", "#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 1\n", IMG_ERR_FORMAT},
    {"EncodingTooFarBehind", header(std::string(1013, 'c') + "\n"), IMG_ERR_FORMAT},
};
const std::vector<test::Refusal> kRefusals = {
    {"HeaderEnds", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe", IMG_ERR_SIZE},
    {"NoEmptyLine", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n-Y 1 +X 1\n", IMG_ERR_SIZE},
    {"NoResolution", kHead, IMG_ERR_SIZE},
    {"NoScanlines", kHead + "-Y 1 +X 1", IMG_ERR_SIZE, 0},
    {"ScanlineHeaderEnds", line(1, {2, 2, 0}), IMG_ERR_SIZE, 0},
    {"PlanesEnd", line(1, {2, 2, 0, 1, 1, 7, 1, 8, 1, 9}), IMG_ERR_SIZE, 0},
    {"LiteralsEnd", line(3, {2, 2, 0, 3, 3, 7, 8}), IMG_ERR_SIZE, 0},
    {"RunWithoutItsByte", line(3, {2, 2, 0, 3, 131}), IMG_ERR_SIZE, 0},
    {"SecondLineEnds", two_lines("-Y 3 +X 3"), IMG_ERR_SIZE, 2},
};
TEST(Hdr, RefusalsAreTold) {
  for (const auto& refusals : {kOtherFiles, kRefusals}) test::expect_refusals(refusals);
}

// A file is also told why, among the debug messages.
struct Fault {
  std::string message;
  std::vector<test::Refusal> files;
};
const std::vector<Fault> kFaults = {
    {"img_open_hdr: bad resolution line",
     {{"NoHeight", two_lines("+X 3"), IMG_ERR_CORRUPT},
      {"HeightOf0", two_lines("-Y 0 +X 3"), IMG_ERR_CORRUPT},
      {"WidthOf0", two_lines("-Y 2 +X 0"), IMG_ERR_CORRUPT},
      {"HeightPastAnInt", two_lines("-Y 2147483648 +X 3"), IMG_ERR_CORRUPT},
      {"WidthThatNoScanlineTells", two_lines("-Y 2 +X 65536"), IMG_ERR_CORRUPT}}},
    {"img_read_hdr: line doesn't begin with 2 2",
     {{"FlatPixels", line(1, {7, 8, 9, 128}), IMG_ERR_CORRUPT, 0},
      {"OlderRuns", line(1, {2, 1, 0, 1}), IMG_ERR_CORRUPT, 0}}},
    {"img_read_hdr: wrong line header length",
     {{"OtherWidth", line(641, {2, 2, 2, 128}), IMG_ERR_CORRUPT, 0}}},
    {"img_read_hdr: scanline too long",
     {{"RunPastTheLine", line(3, {2, 2, 0, 3, 132, 1}), IMG_ERR_CORRUPT, 0},
      {"LiteralsPastTheLine", line(3, {2, 2, 0, 3, 4, 1, 2, 3, 4}), IMG_ERR_CORRUPT, 0},
      {"128LiteralsPastTheLine", line(127, {2, 2, 0, 127}) + literals_128(), IMG_ERR_CORRUPT, 0},
      {"SecondPacketPastTheLine", line(3, {2, 2, 0, 3, 130, 1, 2, 1, 2}), IMG_ERR_CORRUPT, 0}}},
    {"img_read_hdr: wrong line length after RLE",
     {{"NothingButEmptyPackets", line(3, {2, 2, 0, 3}) + std::string(200'000, '\0'),
       IMG_ERR_CORRUPT, 0}}},
    {"img_read_hdr: EOF",
     {{"FileEnds", line(3, {2, 2, 0, 3, 3, 1}), IMG_ERR_SIZE, 0},
      {"NoLine", line(3, {}), IMG_ERR_SIZE, 0}}},
};
TEST(Hdr, FaultsAreTold) {
  for (const auto& [message, files] : kFaults) {
    for (const test::Refusal& refusal : files) {
      const test::MessageLog log(KA_DEBUG);
      test::expect_refusals({refusal});
      EXPECT_EQ(std::ranges::count(log.lines(), "IMG   .0  debug: " + message), 1) << refusal.name;
    }
  }
}

TEST(Hdr, ABadResolutionTellsTheHeight) {
  const std::string told = test::message_of(two_lines("-Y 5 +X 0"));
  EXPECT_TRUE(told.ends_with(": can't uncompress pixels in line 1 of 5, file is corrupted"))
      << told;
}

const std::string kWrittenHead =
    "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\nSOFTWARE=Lumora version 3.2.0.320 10 Oct 2002\n\n";

TEST(Hdr, WritesTheseBytes) {
  const test::Lines lines = {flat(8, {1, 2, 3, 4}),
                             {{5, 5, 6, 7, 8, 8, 8, 9},
                              {1, 2, 3, 4, 5, 6, 7, 7},
                              Samples(8, 9),
                              {1, 1, 2, 2, 3, 3, 4, 4}}};
  EXPECT_EQ(test::written(kHdr, kRgbe, lines),
            kWrittenHead + "-Y 2 +X 8\n" +
                bytes({2, 2, 0, 8, 130, 5, 2,   6, 7,   131, 8,   1, 9,   6, 1,   2,
                       3, 4, 5, 6, 130, 7, 136, 9, 130, 1,   130, 2, 130, 3, 130, 4}) +
                bytes({2, 2, 0, 8, 136, 1, 136, 2, 136, 3, 136, 4}));
}

// Packets hold at most 127 bytes; what is left of a run is a literal when it is a single byte.
TEST(Hdr, WritesLongLinesInSeveralPackets) {
  test::Planes planes = flat(384, {1, 0, 3, 4});
  for (std::size_t i = 1; i < 384; i += 2) planes[1][i] = 1;
  const auto runs = [](int value) {  // 384 = 3 * 127 + 3
    return bytes({255, value, 255, value, 255, value, 131, value});
  };
  const std::string zero_first = bytes({127}) + test::repeated(63, bytes({0, 1})) + bytes({0}),
                    one_first = bytes({127}) + test::repeated(63, bytes({1, 0})) + bytes({1});
  EXPECT_EQ(test::written(kHdr, kRgbe, {planes}),
            kWrittenHead + "-Y 1 +X 384\n" + bytes({2, 2, 1, 128}) + runs(1) + zero_first +
                one_first + zero_first + bytes({3, 1, 0, 1}) + runs(3) + runs(4));
}

}  // namespace
