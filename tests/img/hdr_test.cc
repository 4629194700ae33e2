// Radiance pictures: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>

#include "pictures.h"

namespace {

using test::bytes;
using test::kOpening;

const std::string kHead = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

// Bytes of scanlines behind a header with this resolution line.
std::string file(const std::string& resolution, std::initializer_list<int> scanlines) {
  return kHead + resolution + "\n" + bytes(scanlines);
}
// One line, whose scanline header is given too.
std::string line(int width, std::initializer_list<int> scanline) {
  return file("-Y 1 +X " + std::to_string(width), scanline);
}
// A header with one more line in front of the one that names the encoding; one pixel behind it.
std::string header(const std::string& before) {
  return "#?RADIANCE\n" + before + "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n" +
         bytes({2, 2, 0, 1, 1, 7, 1, 8, 1, 9, 1, 128});
}

const test::Lines kPixel = {{{7}, {8}, {9}, {128}}};

class HdrPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(HdrPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr int kHdr = IMG_FORMAT_HDR, kRgbe = IMG_TYPE_RGBE;

const std::vector<test::Picture> kHeaders = {
    {"EncodingOnly", header(""), kHdr, kRgbe, kPixel},
    {"OtherLines", header("# comment\nEXPOSURE=2\n"), kHdr, kRgbe, kPixel},
    {"BlanksBeforeTheEncoding", header(" \t "), kHdr, kRgbe, kPixel},
    // the last line that is looked at begins at byte 1024: 11 bytes and 1013
    {"EncodingFarBehind", header(std::string(1012, 'c') + "\n"), kHdr, kRgbe, kPixel},
    {"OlderMagic",
     "#?LUMORA - HDR image created by Lumora\n" + header("").substr(kHead.find('\n') + 1), kHdr,
     kRgbe, kPixel},
    {"LongResolutionLine",
     // 127 characters, the line feed with them
     kHead + "-Y 1 +X 1" + std::string(117, ' ') + "\n" +
         bytes({2, 2, 0, 1, 1, 7, 1, 8, 1, 9, 1, 128}),
     kHdr, kRgbe, kPixel},
};
INSTANTIATE_TEST_SUITE_P(Headers, HdrPicture, testing::ValuesIn(kHeaders),
                         test::row_name<test::Picture>);

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
test::Lines lines_of_samples(const std::vector<std::uint32_t>& bottom,
                             const std::vector<std::uint32_t>& top) {
  return {test::Planes(4, bottom), test::Planes(4, top)};
}
const test::Lines kTopFirst = lines_of_samples({4, 5, 6}, {1, 2, 3});
const test::Lines kBottomFirst = lines_of_samples({1, 2, 3}, {4, 5, 6});
const test::Lines kTopFirstMirrored = lines_of_samples({6, 5, 4}, {3, 2, 1});
const test::Lines kBottomFirstMirrored = lines_of_samples({3, 2, 1}, {6, 5, 4});

const std::vector<test::Picture> kResolutions = {
    {"TopFirst", two_lines("-Y 2 +X 3"), kHdr, kRgbe, kTopFirst},
    {"BottomFirst", two_lines("+Y 2 +X 3"), kHdr, kRgbe, kBottomFirst},
    {"TopFirstMirrored", two_lines("-Y 2 -X 3"), kHdr, kRgbe, kTopFirstMirrored},
    {"BottomFirstMirrored", two_lines("+Y 2 -X 3"), kHdr, kRgbe, kBottomFirstMirrored},
    {"WidthFirst", two_lines("+X 3 -Y 2"), kHdr, kRgbe, kTopFirst},
    {"WidthFirstBottomFirst", two_lines("+X 3 +Y 2"), kHdr, kRgbe, kBottomFirst},
    {"WidthFirstMirrored", two_lines("-X 3 -Y 2"), kHdr, kRgbe, kTopFirstMirrored},
    {"WidthFirstBottomFirstMirrored", two_lines("-X 3 +Y 2"), kHdr, kRgbe, kBottomFirstMirrored},
    {"SmallLettersWithoutBlanks", two_lines("-y2+x3"), kHdr, kRgbe, kTopFirst},
    // axes take turns, beginning with x; a sign holds until the next one
    {"NumbersOnly", two_lines("3 2"), kHdr, kRgbe, kBottomFirst},
    {"OneSign", two_lines("-Y 2 3"), kHdr, kRgbe, kTopFirstMirrored},
    {"TheLastOfTwoHeights", two_lines("+Y 9 -Y 2 +X 3"), kHdr, kRgbe, kTopFirst},
};
INSTANTIATE_TEST_SUITE_P(Resolutions, HdrPicture, testing::ValuesIn(kResolutions),
                         test::row_name<test::Picture>);

std::vector<std::uint32_t> counted(std::uint32_t count) {
  std::vector<std::uint32_t> samples(count);
  for (std::uint32_t i = 0; i < count; ++i) samples[i] = i;
  return samples;
}
std::string literals_128() {
  std::string packets = bytes({128});
  for (int i = 0; i < 128; ++i) packets += bytes({i});
  return packets;
}

const std::vector<test::Picture> kScanlines = {
    {"RunsAndLiterals",
     line(8, {2, 2, 0, 8, 136, 5, 3, 1, 2, 3, 133, 9, 130, 7, 134, 8, 8, 1, 2, 3, 4, 5, 6, 7, 8}),
     kHdr,
     kRgbe,
     {{{5, 5, 5, 5, 5, 5, 5, 5},
       {1, 2, 3, 9, 9, 9, 9, 9},
       {7, 7, 8, 8, 8, 8, 8, 8},
       {1, 2, 3, 4, 5, 6, 7, 8}}}},
    {"LongestRun",
     line(127, {2, 2, 0, 127, 255, 1, 255, 2, 255, 3, 255, 4}),
     kHdr,
     kRgbe,
     {{std::vector<std::uint32_t>(127, 1), std::vector<std::uint32_t>(127, 2),
       std::vector<std::uint32_t>(127, 3), std::vector<std::uint32_t>(127, 4)}}},
    {"LongestLiterals",
     line(128, {2, 2, 0, 128}) + literals_128() + literals_128() + literals_128() + literals_128(),
     kHdr,
     kRgbe,
     {test::Planes(4, counted(128))}},
    {"EmptyPackets", line(1, {2, 2, 0, 1, 0, 0, 0, 0, 1, 7, 0, 1, 8, 129, 9, 1, 128}), kHdr, kRgbe,
     kPixel},
    {"BytesBehindTheLastLine", header("") + "more", kHdr, kRgbe, kPixel},
};
INSTANTIATE_TEST_SUITE_P(Scanlines, HdrPicture, testing::ValuesIn(kScanlines),
                         test::row_name<test::Picture>);

class HdrRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(HdrRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kOtherFiles = {
    {"OtherMagic", "#?RGBE" + header("").substr(10), IMG_ERR_FORMAT},
    {"MagicWithMoreBehind", "#?RADIANCE 2" + header("").substr(10), IMG_ERR_FORMAT},
    {"MagicOnly", "#?RADIANCE", IMG_ERR_FORMAT},
    {"NoEncoding", "#?RADIANCE\n\nFORMAT=32-bit_rle_rgbe\n", IMG_ERR_FORMAT},
    {"OtherEncoding", "#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 1\n", IMG_ERR_FORMAT},
    {"EncodingTooFarBehind", header(std::string(1013, 'c') + "\n"), IMG_ERR_FORMAT},
};
INSTANTIATE_TEST_SUITE_P(OtherFiles, HdrRefusal, testing::ValuesIn(kOtherFiles),
                         test::row_name<test::Refusal>);

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
INSTANTIATE_TEST_SUITE_P(Files, HdrRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

// A file is also told why, among the debug messages.
struct Told {
  const char* name;
  std::string file;
  int error, line;
  const char* message;
};
class HdrFault : public testing::TestWithParam<Told> {};

TEST_P(HdrFault, IsTold) {
  const auto& [name, file, error, line, message] = GetParam();
  const test::MessageLog log(KA_DEBUG);
  test::expect_refusal({name, file, error, line});
  const std::string told = std::string("IMG   .0  debug: ") + message;
  EXPECT_EQ(std::ranges::count(log.lines(), told), 1);
}

constexpr char kBadResolution[] = "img_open_hdr: bad resolution line";
constexpr char kTooLong[] = "img_read_hdr: scanline too long";

const std::vector<Told> kFaults = {
    {"NoHeight", two_lines("+X 3"), IMG_ERR_CORRUPT, kOpening, kBadResolution},
    {"HeightOf0", two_lines("-Y 0 +X 3"), IMG_ERR_CORRUPT, kOpening, kBadResolution},
    {"WidthOf0", two_lines("-Y 2 +X 0"), IMG_ERR_CORRUPT, kOpening, kBadResolution},
    {"HeightPastAnInt", two_lines("-Y 2147483648 +X 3"), IMG_ERR_CORRUPT, kOpening, kBadResolution},
    {"WidthThatNoScanlineTells", two_lines("-Y 2 +X 65536"), IMG_ERR_CORRUPT, kOpening,
     kBadResolution},
    {"FlatPixels", line(1, {7, 8, 9, 128}), IMG_ERR_CORRUPT, 0,
     "img_read_hdr: line doesn't begin with 2 2"},
    {"OlderRuns", line(1, {2, 1, 0, 1}), IMG_ERR_CORRUPT, 0,
     "img_read_hdr: line doesn't begin with 2 2"},
    {"OtherWidth", line(641, {2, 2, 2, 128}), IMG_ERR_CORRUPT, 0,
     "img_read_hdr: wrong line header length"},
    {"RunPastTheLine", line(3, {2, 2, 0, 3, 132, 1}), IMG_ERR_CORRUPT, 0, kTooLong},
    {"LiteralsPastTheLine", line(3, {2, 2, 0, 3, 4, 1, 2, 3, 4}), IMG_ERR_CORRUPT, 0, kTooLong},
    {"128LiteralsPastTheLine", line(127, {2, 2, 0, 127}) + literals_128(), IMG_ERR_CORRUPT, 0,
     kTooLong},
    {"SecondPacketPastTheLine", line(3, {2, 2, 0, 3, 130, 1, 2, 1, 2}), IMG_ERR_CORRUPT, 0,
     kTooLong},
    {"NothingButEmptyPackets", line(3, {2, 2, 0, 3}) + std::string(200'000, '\0'), IMG_ERR_CORRUPT,
     0, "img_read_hdr: wrong line length after RLE"},
    {"FileEnds", line(3, {2, 2, 0, 3, 3, 1}), IMG_ERR_SIZE, 0, "img_read_hdr: EOF"},
    {"NoLine", line(3, {}), IMG_ERR_SIZE, 0, "img_read_hdr: EOF"},
};
INSTANTIATE_TEST_SUITE_P(Files, HdrFault, testing::ValuesIn(kFaults), test::row_name<Told>);

TEST(Hdr, ABadResolutionTellsTheHeight) {
  const test::Scratch scratch;
  const test::MessageLog log;
  test::Handle file;
  EXPECT_FALSE(
      ka_img_open(file, scratch.write("a", two_lines("-Y 5 +X 0")).c_str(), IMG_TYPE_FILE));
  ka_img_err_msg(file);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(
      log.lines()[0].ends_with(": can't uncompress pixels in line 1 of 5, file is corrupted"))
      << log.lines()[0];
}

std::vector<std::uint32_t> equal(std::uint32_t count, std::uint32_t value) {
  return std::vector<std::uint32_t>(count, value);
}

const std::string kWrittenHead =
    "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\nSOFTWARE=Lumora version 3.2.0.320 10 Oct 2002\n\n";

TEST(Hdr, WritesTheseBytes) {
  const test::Image image =
      test::make_picture(kRgbe, 8,
                         {{equal(8, 1), equal(8, 2), equal(8, 3), equal(8, 4)},
                          {{5, 5, 6, 7, 8, 8, 8, 9},
                           {1, 2, 3, 4, 5, 6, 7, 7},
                           equal(8, 9),
                           {1, 1, 2, 2, 3, 3, 4, 4}}});
  EXPECT_EQ(test::written(IMG_FORMAT_HDR, image.get()),
            kWrittenHead + "-Y 2 +X 8\n" +
                bytes({2, 2, 0, 8, 130, 5, 2,   6, 7,   131, 8,   1, 9,   6, 1,   2,
                       3, 4, 5, 6, 130, 7, 136, 9, 130, 1,   130, 2, 130, 3, 130, 4}) +
                bytes({2, 2, 0, 8, 136, 1, 136, 2, 136, 3, 136, 4}));
}

// Packets hold at most 127 bytes; what is left of a run is a literal when it is a single byte.
TEST(Hdr, WritesLongLinesInSeveralPackets) {
  std::vector<std::uint32_t> alternating(384);
  for (std::size_t i = 0; i < alternating.size(); ++i) alternating[i] = i % 2;
  const test::Image image =
      test::make_picture(kRgbe, 384, {{equal(384, 1), alternating, equal(384, 3), equal(384, 4)}});
  const auto runs = [](int value) {  // 384 = 3 * 127 + 3
    return bytes({255, value, 255, value, 255, value, 131, value});
  };
  std::string zero_first, one_first;
  for (int i = 0; i < 127; ++i) {
    zero_first += bytes({i % 2});
    one_first += bytes({1 - i % 2});
  }
  EXPECT_EQ(test::written(IMG_FORMAT_HDR, image.get()),
            kWrittenHead + "-Y 1 +X 384\n" + bytes({2, 2, 1, 128}) + runs(1) + bytes({127}) +
                zero_first + bytes({127}) + one_first + bytes({127}) + zero_first +
                bytes({3, 1, 0, 1}) + runs(3) + runs(4));
}

}  // namespace
