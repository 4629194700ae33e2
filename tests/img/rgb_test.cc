// SGI images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "pictures.h"

namespace {

using test::be, test::bytes;

constexpr std::size_t kHeaderBytes = 512;

struct Shape {
  int storage, sample_bytes, dimension, width, height, channels;
};

// Written files tell the largest sample and their name, of up to 80 characters, as it was given.
std::string header(const Shape& shape, int largest = 0, const std::string& name = "") {
  std::string header = be(2, 474) + bytes({shape.storage, shape.sample_bytes}) +
                       be(2, shape.dimension) + be(2, shape.width) + be(2, shape.height) +
                       be(2, shape.channels) + std::string(6, 0) + be(2, largest) +
                       std::string(4, 0) + name.substr(0, 80);
  header.resize(kHeaderBytes);
  return header;
}

std::string verbatim(const Shape& shape, std::initializer_list<int> samples) {
  return header(shape) + bytes(samples);
}

struct Entry {
  int start, length;
};

// The tables, then the packets. Starts count from the first byte of the packets.
std::string rows(const std::vector<Entry>& table, std::initializer_list<int> packets) {
  const int first = int(kHeaderBytes + 8 * table.size());
  std::string starts, lengths;
  for (const auto& [start, length] : table) {
    starts += be(4, start + first);
    lengths += be(4, length);
  }
  return starts + lengths + bytes(packets);
}
std::string encoded(const Shape& shape, const std::vector<Entry>& table,
                    std::initializer_list<int> packets) {
  return header(shape) + rows(table, packets);
}

// One grey row of three samples.
std::string grey_row(std::initializer_list<int> packets, int sample_bytes = 1) {
  return encoded({1, sample_bytes, 2, 3, 1, 1}, {{0, int(packets.size())}}, packets);
}

constexpr int kSgi = IMG_FORMAT_RGB, k8 = IMG_TYPE_RGB, k16 = IMG_TYPE_RGB_16;

test::Picture sgi(const char* name, const std::string& file, int type, const test::Lines& lines) {
  return {name, file, kSgi, type, lines};
}
test::Planes grey(const std::vector<std::uint32_t>& samples) { return {samples, samples, samples}; }

const std::vector<test::Picture> kPictures = {
    sgi("PlaneByPlane", verbatim({0, 1, 3, 2, 2, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), k8,
        {{{1, 2}, {5, 6}, {9, 10}}, {{3, 4}, {7, 8}, {11, 12}}}),
    sgi("FifthChannelIsLeftOut", verbatim({0, 1, 3, 1, 1, 5}, {1, 2, 3, 4, 5}), k8,
        {{{1}, {2}, {3}}}),
    sgi("SixteenBits", verbatim({0, 2, 3, 2, 1, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 255, 12}), k16,
        {{{0x102, 0x304}, {0x506, 0x708}, {0x90a, 0xff0c}}}),
    sgi("OneChannel", verbatim({0, 1, 2, 2, 2, 1}, {1, 2, 3, 4}), k8, {grey({1, 2}), grey({3, 4})}),
    sgi("OneChannelWithFourCounted", verbatim({0, 1, 2, 1, 1, 4}, {7}), IMG_TYPE_RGBA,
        {{{7}, {7}, {7}, {7}}}),
    sgi("OneRowForEveryLine", verbatim({0, 1, 1, 2, 2, 1}, {1, 2}), k8,
        {grey({1, 2}), grey({1, 2})}),
    sgi("OtherBitsOfTheStorage", verbatim({0xfe, 1, 2, 1, 1, 1}, {9}), k8, {grey({9})}),
    // row number = channel * 2 + line; rows that are alike may share their packets
    sgi("EncodedRowsAnywhere",
        encoded({1, 1, 3, 2, 2, 3}, {{10, 3}, {0, 4}, {4, 3}, {7, 3}, {7, 3}, {10, 3}},
                {0x82, 1, 2, 0, 2, 3, 0, 2, 4, 0, 2, 5, 0}),
        k8, {{{5, 5}, {3, 3}, {4, 4}}, {{1, 2}, {4, 4}, {5, 5}}}),
    sgi("NoClosingZero", grey_row({0x81, 1, 2, 3}), k8, {grey({1, 3, 3})}),
    sgi("EncodedSixteenBits", grey_row({0, 1, 1, 2, 0xff, 0x82, 3, 4, 5, 6, 0, 0}, 2), k16,
        {grey({0x102, 0x304, 0x506})}),
    sgi("EncodedRowForEveryLine", encoded({1, 1, 1, 1, 2, 1}, {{0, 3}, {9, 9}}, {1, 8, 0}), k8,
        {grey({8}), grey({8})}),
};
TEST(Sgi, PicturesAreRead) { test::expect_pictures(kPictures); }

const std::vector<test::Refusal> kRefusals = {
    {"HeaderEnds", header({0, 1, 3, 2, 2, 3}).substr(0, 107), IMG_ERR_READ},
    {"ThreeBytesPerSample", verbatim({0, 3, 3, 1, 1, 3}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"FourDimensions", verbatim({0, 1, 4, 1, 1, 3}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"TwoChannels", verbatim({0, 1, 3, 1, 1, 2}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"TablesOfFourBillionRows", header({1, 1, 3, 1, 65535, 65535}), IMG_ERR_READ},
    {"VerbatimEndsInTheSecondLine", verbatim({0, 1, 2, 2, 2, 1}, {1, 2, 3}), IMG_ERR_READ, 1},
    {"RowBehindTheFile", encoded({1, 1, 2, 3, 1, 1}, {{30000, 3}}, {3, 2, 0}), IMG_ERR_READ, 0},
    {"RowNeverWritten", encoded({1, 1, 2, 3, 1, 1}, {{0, -1}}, {3, 2, 0}), IMG_ERR_CORRUPT, 0},
    // three samples take 7 bytes at most, whatever the file still holds
    {"LongerThanAnyRow", grey_row({3, 2, 0, 0, 0, 0, 0, 0}), IMG_ERR_CORRUPT, 0},
    {"OneSampleTooFew", grey_row({2, 2, 0}), IMG_ERR_CORRUPT, 0},
    {"LiteralsEnd", grey_row({0x83, 1, 2}), IMG_ERR_CORRUPT, 0},
    {"HalfASample", grey_row({0, 3, 1}, 2), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", verbatim({0, 1, 2, 1, 1, 1}, {1, 2, 3}), IMG_ERR_READ, 1},
};
TEST(Sgi, RefusalsAreTold) { test::expect_refusals(kRefusals); }

TEST(Sgi, RowsBehindACorruptOneAreRead) {
  test::OpenFile file(encoded({1, 1, 2, 2, 2, 1}, {{0, 3}, {3, 3}}, {3, 1, 0, 2, 5, 0}));
  EXPECT_FALSE(file.read_line());
  EXPECT_TRUE(file.read_line());
  EXPECT_EQ(file.planes(), grey({5, 5}));
}

// Of two lines, in the order in which they are written: each line's channels together.
TEST(Sgi, WritesTheseBytes) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a"), long_path = scratch.path(std::string(90, 'n'));
  const test::Image image =
      test::make_picture(k8, 2, {{{1, 1}, {2, 3}, {4, 4}}, {{5, 5}, {6, 6}, {7, 8}}});
  ASSERT_EQ(test::write_image(path, kSgi, image.get()), IMG_ERR_NONE);
  // rows by channel, then by line
  EXPECT_EQ(test::read_file(path),
            header({1, 1, 3, 2, 2, 3}, 255, path) +
                rows({{0, 3}, {11, 3}, {3, 5}, {14, 3}, {8, 3}, {17, 5}},
                     {2, 1, 0, 1, 2, 1, 3, 0, 2, 4, 0, 2, 5, 0, 2, 6, 0, 1, 7, 1, 8, 0}));
  const test::Image deep =
      test::make_picture(IMG_TYPE_RGBA_16, 1, {{{0x102}, {0x304}, {0}, {0xffff}}});
  ASSERT_EQ(test::write_image(long_path, kSgi, deep.get()), IMG_ERR_NONE);
  EXPECT_EQ(test::read_file(long_path),
            header({1, 2, 3, 1, 1, 4}, 65535, long_path) +
                rows({{0, 6}, {6, 6}, {12, 6}, {18, 6}},
                     {0, 1, 1, 2, 0, 0, 0, 1, 3, 4, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 255, 255, 0, 0}));
}

TEST(Sgi, FloatsBecomeSamplesOf16Bits) {
  const auto number = [](float value) { return std::bit_cast<std::uint32_t>(value); };
  const test::Planes floats = {{0, number(1), number(0.5F), number(2)},
                               {number(-1), number(NAN), number(INFINITY), number(-INFINITY)},
                               {0, 0, 0, 0}};
  // 0.5 * 65535 = 32767.5
  test::expect_picture(sgi("", test::written(kSgi, IMG_TYPE_RGB_FP, {floats}), k16,
                           {{{0, 65535, 32767, 65535}, {0, 0, 65535, 0}, {0, 0, 0, 0}}}));
}

// A file is no picture before it is closed; lines that were not written are corrupt then.
TEST(Sgi, FilesAreWholeWhenTheyAreClosed) {
  for (const int lines : {1, 2, 3}) {
    SCOPED_TRACE(lines);
    test::NewFile file(kSgi, k8, 1, 2);
    for (int y = 0; y < lines; ++y) EXPECT_EQ(file.write_line(), y < 2);
    EXPECT_EQ(file->error, lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_FALSE(test::exists(file.path()) && test::OpenFile(file.contents()).is_open());
    file.close();
    ASSERT_EQ(test::exists(file.path()), lines <= 2);
    const int second = lines == 1 ? IMG_ERR_CORRUPT : IMG_ERR_NONE;
    if (lines > 2) continue;
    EXPECT_EQ(test::line_errors(file.contents()), (std::vector<int>{IMG_ERR_NONE, second}));
  }
}

}  // namespace
