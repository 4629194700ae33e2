// SGI images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include <cmath>

#include "pictures.h"

namespace {

using test::bytes;
using test::kOpening;

constexpr std::size_t kHeaderBytes = 512;

struct Shape {
  int storage, sample_bytes, dimension, width, height, channels;
};

std::string be16(int value) { return bytes({value >> 8, value & 255}); }

std::string header(const Shape& shape) {
  std::string header = be16(474) + bytes({shape.storage, shape.sample_bytes}) +
                       be16(shape.dimension) + be16(shape.width) + be16(shape.height) +
                       be16(shape.channels);
  header.resize(kHeaderBytes);
  return header;
}

std::string verbatim(const Shape& shape, std::initializer_list<int> samples) {
  return header(shape) + bytes(samples);
}

struct Entry {
  int start, length;
};

// An encoded file: its tables, then the packets. Starts count from the first byte of the packets.
std::string encoded(const Shape& shape, const std::vector<Entry>& table,
                    std::initializer_list<int> packets) {
  const int first = int(kHeaderBytes + 8 * table.size());
  std::string starts, lengths;
  for (const auto& [start, length] : table) {
    starts += be16(0) + be16(start + first);
    lengths += be16(length >> 16 & 0xffff) + be16(length & 0xffff);
  }
  return header(shape) + starts + lengths + bytes(packets);
}

// One grey row of three samples.
std::string grey_row(std::initializer_list<int> packets) {
  return encoded({1, 1, 2, 3, 1, 1}, {{0, int(packets.size())}}, packets);
}
std::string grey_row_16(std::initializer_list<int> packets) {
  return encoded({1, 2, 2, 3, 1, 1}, {{0, int(packets.size())}}, packets);
}

class SgiPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(SgiPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr int kSgi = IMG_FORMAT_RGB, k8 = IMG_TYPE_RGB, k16 = IMG_TYPE_RGB_16;

const std::vector<test::Picture> kVerbatim = {
    {"PlaneByPlane",
     verbatim({0, 1, 3, 2, 2, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}),
     kSgi,
     k8,
     {{{1, 2}, {5, 6}, {9, 10}}, {{3, 4}, {7, 8}, {11, 12}}}},
    {"FourChannels",
     verbatim({0, 1, 3, 1, 2, 4}, {1, 2, 3, 4, 5, 6, 7, 8}),
     kSgi,
     IMG_TYPE_RGBA,
     {{{1}, {3}, {5}, {7}}, {{2}, {4}, {6}, {8}}}},
    {"FifthChannelIsLeftOut",
     verbatim({0, 1, 3, 1, 1, 5}, {1, 2, 3, 4, 5}),
     kSgi,
     k8,
     {{{1}, {2}, {3}}}},
    {"SixteenBits",
     verbatim({0, 2, 3, 2, 1, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 255, 12}),
     kSgi,
     k16,
     {{{0x102, 0x304}, {0x506, 0x708}, {0x90a, 0xff0c}}}},
    {"OneChannel",
     verbatim({0, 1, 2, 2, 2, 1}, {1, 2, 3, 4}),
     kSgi,
     k8,
     {{{1, 2}, {1, 2}, {1, 2}}, {{3, 4}, {3, 4}, {3, 4}}}},
    {"OneChannelThatIsNotCounted",
     verbatim({0, 1, 2, 1, 2, 0}, {1, 2}),
     kSgi,
     k8,
     {{{1}, {1}, {1}}, {{2}, {2}, {2}}}},
    {"OneChannelOfSeveral",
     verbatim({0, 1, 3, 1, 2, 1}, {1, 2}),
     kSgi,
     k8,
     {{{1}, {1}, {1}}, {{2}, {2}, {2}}}},
    {"OneChannelWithFourCounted",
     verbatim({0, 1, 2, 1, 1, 4}, {7}),
     kSgi,
     IMG_TYPE_RGBA,
     {{{7}, {7}, {7}, {7}}}},
    {"OneRowForEveryLine",
     verbatim({0, 1, 1, 2, 2, 1}, {1, 2}),
     kSgi,
     k8,
     {{{1, 2}, {1, 2}, {1, 2}}, {{1, 2}, {1, 2}, {1, 2}}}},
    {"OtherBitsOfTheStorageMeanNothing",
     verbatim({0xfe, 1, 2, 1, 1, 1}, {9}),
     kSgi,
     k8,
     {{{9}, {9}, {9}}}},
};
INSTANTIATE_TEST_SUITE_P(Verbatim, SgiPicture, testing::ValuesIn(kVerbatim),
                         test::row_name<test::Picture>);

const std::vector<test::Picture> kEncoded = {
    {"RowsAnywhere",
     // row number = channel * 2 + line; rows that are alike may share their packets
     encoded({1, 1, 3, 2, 2, 3}, {{10, 3}, {0, 4}, {4, 3}, {7, 3}, {7, 3}, {10, 3}},
             {0x82, 1, 2, 0, 2, 3, 0, 2, 4, 0, 2, 5, 0}),
     kSgi,
     k8,
     {{{5, 5}, {3, 3}, {4, 4}}, {{1, 2}, {4, 4}, {5, 5}}}},
    {"RunsAndLiterals",
     grey_row({0x81, 7, 2, 9, 0}),
     kSgi,
     k8,
     {{{7, 9, 9}, {7, 9, 9}, {7, 9, 9}}}},
    {"OtherBitsOfTheStorage",
     encoded({0xff, 1, 2, 1, 1, 1}, {{0, 3}}, {1, 8, 0}),
     kSgi,
     k8,
     {{{8}, {8}, {8}}}},
    {"NoClosingZero", grey_row({0x83, 1, 2, 3}), kSgi, k8, {{{1, 2, 3}, {1, 2, 3}, {1, 2, 3}}}},
    {"BytesBehindTheZero",
     grey_row({3, 4, 0, 9, 9}),
     kSgi,
     k8,
     {{{4, 4, 4}, {4, 4, 4}, {4, 4, 4}}}},
    {"SixteenBits",
     grey_row_16({0, 1, 1, 2, 0xff, 0x82, 3, 4, 5, 6, 0, 0}),
     kSgi,
     k16,
     {{{0x102, 0x304, 0x506}, {0x102, 0x304, 0x506}, {0x102, 0x304, 0x506}}}},
    {"SixteenBitsNoClosingZero",
     grey_row_16({0, 3, 1, 2}),
     kSgi,
     k16,
     {{{0x102, 0x102, 0x102}, {0x102, 0x102, 0x102}, {0x102, 0x102, 0x102}}}},
    {"OneRowForEveryLine",
     encoded({1, 1, 1, 1, 2, 1}, {{0, 3}, {9, 9}}, {1, 8, 0}),
     kSgi,
     k8,
     {{{8}, {8}, {8}}, {{8}, {8}, {8}}}},
};
INSTANTIATE_TEST_SUITE_P(Encoded, SgiPicture, testing::ValuesIn(kEncoded),
                         test::row_name<test::Picture>);

class SgiRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(SgiRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kRefusals = {
    {"HeaderEnds", header({0, 1, 3, 2, 2, 3}).substr(0, 107), IMG_ERR_READ},
    {"NoBytesPerSample", verbatim({0, 0, 3, 1, 1, 3}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"ThreeBytesPerSample", verbatim({0, 3, 3, 1, 1, 3}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"NoDimension", verbatim({0, 1, 0, 1, 1, 3}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"FourDimensions", verbatim({0, 1, 4, 1, 1, 3}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"NoChannel", verbatim({0, 1, 3, 1, 1, 0}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"TwoChannels", verbatim({0, 1, 3, 1, 1, 2}, {1, 2, 3}), IMG_ERR_SUBTYPE},
    {"TablesEnd", grey_row({}).substr(0, 519), IMG_ERR_READ},
    {"TablesOfFourBillionRows", header({1, 1, 3, 1, 65535, 65535}), IMG_ERR_READ},
    {"VerbatimEndsInTheSecondLine", verbatim({0, 1, 2, 2, 2, 1}, {1, 2, 3}), IMG_ERR_READ, 1},
    {"VerbatimEndsInTheThirdPlane", verbatim({0, 1, 3, 1, 1, 3}, {1, 2}), IMG_ERR_READ, 0},
    {"HeaderOnly", header({0, 1, 3, 1, 1, 3}).substr(0, 108), IMG_ERR_READ, 0},
    {"PacketsEnd", encoded({1, 1, 2, 3, 1, 1}, {{0, 4}}, {1, 2, 3}), IMG_ERR_READ, 0},
    {"RowBehindTheFile", encoded({1, 1, 2, 3, 1, 1}, {{30000, 3}}, {3, 2, 0}), IMG_ERR_READ, 0},
    {"RowNeverWritten", encoded({1, 1, 2, 3, 1, 1}, {{0, -1}}, {3, 2, 0}), IMG_ERR_CORRUPT, 0},
    // three samples take 7 bytes at most, whatever the file still holds
    {"LongerThanAnyRow", encoded({1, 1, 2, 3, 1, 1}, {{0, 8}}, {3, 2, 0, 0, 0, 0, 0, 0}),
     IMG_ERR_CORRUPT, 0},
    {"OneSampleTooMany", grey_row({4, 2, 0}), IMG_ERR_CORRUPT, 0},
    {"OneLiteralTooMany", grey_row({0x84, 1, 2, 3, 4, 0}), IMG_ERR_CORRUPT, 0},
    {"PacketBehindAFullRow", grey_row({3, 2, 1, 2, 0}), IMG_ERR_CORRUPT, 0},
    {"OneSampleTooFew", grey_row({2, 2, 0}), IMG_ERR_CORRUPT, 0},
    {"NoSample", grey_row({}), IMG_ERR_CORRUPT, 0},
    {"RunWithoutItsValue", grey_row({1, 9, 2}), IMG_ERR_CORRUPT, 0},
    {"LiteralsEnd", grey_row({0x83, 1, 2}), IMG_ERR_CORRUPT, 0},
    {"HalfASample", grey_row_16({0, 3, 1}), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", verbatim({0, 1, 2, 1, 1, 1}, {1, 2, 3}), IMG_ERR_READ, 1},
    {"NoEncodedLineBehindTheLast", encoded({1, 1, 1, 1, 1, 1}, {{0, 3}}, {1, 8, 0}), IMG_ERR_READ,
     1},
};
INSTANTIATE_TEST_SUITE_P(Files, SgiRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

TEST(Sgi, RowsBehindACorruptOneAreRead) {
  const test::Scratch scratch;
  test::Handle file;
  const std::string path =
      scratch.write("a", encoded({1, 1, 2, 2, 2, 1}, {{0, 3}, {3, 3}}, {3, 1, 0, 2, 5, 0}));
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_FALSE(ka_img_line_read(file, line.get()));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(test::plane(line.get(), test::kB)[1], 5);
}

// The name stands in the header as the caller gave it, up to 80 characters.
std::string written_header(const Shape& shape, const std::string& largest,
                           const std::string& name) {
  std::string text = header(shape).substr(0, 12) + be16(0) + be16(0) + be16(0) + largest + be16(0) +
                     be16(0) + name.substr(0, 80);
  text.resize(kHeaderBytes);
  return text;
}

// Of two lines, in the order in which they are written: each line's channels together.
TEST(Sgi, WritesTheseBytes) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a");
  const test::Image image =
      test::make_picture(IMG_TYPE_RGB, 2, {{{1, 1}, {2, 3}, {4, 4}}, {{5, 5}, {6, 6}, {7, 8}}});
  ASSERT_EQ(test::write_image(path, IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
  // packets start at 512 + 8 * 6 = 560; rows by channel, then by line
  EXPECT_EQ(test::read_file(path),
            written_header({1, 1, 3, 2, 2, 3}, be16(255), path) +
                encoded({}, {{0, 3}, {11, 3}, {3, 5}, {14, 3}, {8, 3}, {17, 5}},
                        {2, 1, 0, 1, 2, 1, 3, 0, 2, 4, 0, 2, 5, 0, 2, 6, 0, 1, 7, 1, 8, 0})
                    .substr(kHeaderBytes));
}

TEST(Sgi, WritesTheseBytesOf16Bits) {
  const test::Scratch scratch;
  const std::string path = scratch.path(std::string(90, 'n'));
  const test::Image image =
      test::make_picture(IMG_TYPE_RGBA_16, 1, {{{0x102}, {0x304}, {0}, {0xffff}}});
  ASSERT_EQ(test::write_image(path, IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
  EXPECT_EQ(test::read_file(path), written_header({1, 2, 3, 1, 1, 4}, be16(65535), path) +
                                       encoded({}, {{0, 6}, {6, 6}, {12, 6}, {18, 6}},
                                               {0, 1, 1, 2, 0, 0, 0, 1, 3,    4,    0, 0,
                                                0, 1, 0, 0, 0, 0, 0, 1, 0xff, 0xff, 0, 0})
                                           .substr(kHeaderBytes));
}

TEST(Sgi, FloatsBecomeSamplesOf16Bits) {
  const test::Scratch scratch;
  const test::Image image = test::make_image(IMG_TYPE_RGB_FP, 4, 1);
  test::set_samples<float>(test::plane(image.get(), 0, test::kR), {0, 1, 0.5F, 2});
  test::set_samples<float>(test::plane(image.get(), 0, test::kG), {-1, NAN, INFINITY, -INFINITY});
  ASSERT_EQ(test::write_image(scratch.path("a"), IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
  const test::Image read = test::read_image(scratch.path("a"), IMG_TYPE_FILE);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->type, IMG_TYPE_RGB_16);
  EXPECT_EQ(test::planes_of(read.get(), 0),  // 0.5 * 65535 = 32767.5
            (test::Planes{{0, 65535, 32767, 65535}, {0, 0, 65535, 0}, {0, 0, 0, 0}}));
}

TEST(Sgi, SharedExponentsAreAFourthChannel) {
  const test::Image image = test::make_picture(IMG_TYPE_RGBE, 1, {{{128}, {2}, {3}, {129}}});
  const test::Scratch scratch;
  ASSERT_EQ(test::write_image(scratch.path("a"), IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
  const test::Image read = test::read_image(scratch.path("a"), IMG_TYPE_FILE);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->type, IMG_TYPE_RGBA);
  EXPECT_EQ(test::lines_of(read.get()), test::lines_of(image.get()));
}

// A file that is created for two lines.
class SgiWriting : public testing::Test {
 protected:
  SgiWriting() : path_(scratch_.path("a")) {
    file_->file_type = IMG_TYPE_RGB;
    EXPECT_TRUE(ka_img_create(file_, path_.c_str(), IMG_TYPE_RGB, IMG_FORMAT_RGB, 1, 2));
    line_.reset(ka_img_line_alloc(file_));
  }

  test::Scratch scratch_;
  std::string path_;
  test::Handle file_;
  test::Line line_;
};

TEST_F(SgiWriting, FileIsNoPictureBeforeItIsClosed) {
  EXPECT_TRUE(ka_img_line_write(file_, line_.get()));
  EXPECT_TRUE(ka_img_line_write(file_, line_.get()));
  test::Handle reader;
  EXPECT_FALSE(ka_img_open(reader, path_.c_str(), IMG_TYPE_FILE));
  EXPECT_TRUE(ka_img_close(file_));
  EXPECT_TRUE(ka_img_open(reader, path_.c_str(), IMG_TYPE_FILE));
}

TEST_F(SgiWriting, LinesThatWereNotWrittenAreCorrupt) {
  EXPECT_TRUE(ka_img_line_write(file_, line_.get()));
  EXPECT_TRUE(ka_img_close(file_));
  test::expect_refusal({"", test::read_file(path_), IMG_ERR_CORRUPT, 1});
}

TEST_F(SgiWriting, LineBehindTheLastIsRefused) {
  EXPECT_TRUE(ka_img_line_write(file_, line_.get()));
  EXPECT_TRUE(ka_img_line_write(file_, line_.get()));
  EXPECT_FALSE(ka_img_line_write(file_, line_.get()));
  EXPECT_EQ(file_->error, IMG_ERR_WRITE);
  ka_img_close(file_);
  EXPECT_FALSE(test::exists(path_));
}

}  // namespace
