#include <ka/drivers.h>
#include <libdeflate.h>
#include <zlib.h>

#include <filesystem>

#include "pixels.h"

namespace {

TEST(Png, WrittenPicturesAreRead) {
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA, IMG_TYPE_RGB_16, IMG_TYPE_RGBA_16}) {
    for (const auto& [width, height] : {std::pair{1, 1}, {257, 31}, {40'001, 5}}) {
      SCOPED_TRACE(testing::Message() << type << ": " << width << " x " << height);
      const test::Scratch scratch;
      const test::Image image = test::runs_picture(type, width, height);
      ASSERT_EQ(test::write_image(scratch.path("a.png"), KA_DRIVERS_PNG, image.get()), 0);
      test::expect_equal(image, test::read_image(scratch.path("a.png"), IMG_TYPE_FILE));
    }
  }
}

std::string be32(std::uint32_t value) {
  const std::string bytes = test::little(value, 4);
  return {bytes.rbegin(), bytes.rend()};
}

std::string chunk(const std::string& type, const std::string& data) {
  const std::string both = type + data;
  return be32(std::uint32_t(data.size())) + both +
         be32(libdeflate_crc32(0, both.data(), both.size()));
}

std::string packed(const std::string& data, int level) {
  uLongf size = compressBound(data.size());
  std::string result(size, '\0');
  compress2(reinterpret_cast<Bytef*>(result.data()), &size,
            reinterpret_cast<const Bytef*>(data.data()), data.size(), level);
  return result.substr(0, size);
}

const std::string kSignature = "\x89PNG\r\n\x1a\n", kEnd = chunk("IEND", "");

std::string header(std::uint32_t width, std::uint32_t height, int bits, int color, int rest = 0) {
  return chunk("IHDR",
               be32(width) + be32(height) + test::bytes({bits, color, 0, rest >> 1, rest & 1}));
}

// Of grey lines, stored: two bytes each, the first one line in a chunk.
const std::string kRows = std::string("\0a\0b\0c\0d", 8);
const std::string kStored = packed(kRows, 0);  // a head of 7 bytes
std::string grey(const std::string& chunks) { return kSignature + header(1, 4, 8, 0) + chunks; }

std::string with_byte(std::string file, std::size_t from_the_end, int value) {
  file[file.size() - from_the_end] = char(value);
  return file;
}

const std::string kTwoChunks =
    grey(chunk("IDAT", kStored.substr(0, 11)) + chunk("IDAT", kStored.substr(11)) + kEnd);
const std::string kPalette = header(2, 1, 2, 3) + chunk("PLTE", "abcdef");
const std::string kOneLine = chunk("IDAT", packed(std::string("\0\x10", 2), 9)) + kEnd;

struct Damaged {
  std::string name, file;
  int error, lines;  // lines read before; -1: it is not opened
};
class PngDamage : public testing::TestWithParam<Damaged> {};

TEST_P(PngDamage, FailsWhereItBegins) {
  const test::Scratch scratch;
  test::Handle file;
  int lines = -1;
  if (ka_img_open(file, scratch.write("a", GetParam().file).c_str(), IMG_TYPE_FILE)) {
    const test::Line line(ka_img_line_alloc(file));
    for (lines = 0; lines < file->height && ka_img_line_read(file, line.get()); ++lines) {
      if (file->width != 1) continue;
      EXPECT_EQ(*test::plane(line.get(), test::kB), 'a' + lines);
    }
    if (lines == file->height) ka_img_line_read(file, line.get());  // beyond the last line
  }
  EXPECT_EQ(file->error, GetParam().error);
  EXPECT_EQ(lines, GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, PngDamage,
    testing::Values(
        Damaged{"None", kTwoChunks, IMG_ERR_READ, 4},
        Damaged{"MoreDataThanLines", grey(chunk("IDAT", packed(kRows + "abc", 0)) + kEnd),
                IMG_ERR_READ, 4},
        Damaged{"ChecksumOfTheSecondChunk", with_byte(kTwoChunks, 13, 0), IMG_ERR_CORRUPT, 2},
        Damaged{"ChecksumOfTheData", grey(chunk("IDAT", with_byte(kStored, 1, 0)) + kEnd),
                IMG_ERR_CORRUPT, 3},
        Damaged{"EndsInTheSecondLine", grey(chunk("IDAT", kStored)).substr(0, 33 + 8 + 10),
                IMG_ERR_READ, 1},
        Damaged{"DataEndsEarly", grey(chunk("IDAT", packed(kRows.substr(0, 4), 0)) + kEnd),
                IMG_ERR_CORRUPT, 2},
        Damaged{"UnknownFilter", grey(chunk("IDAT", packed(with_byte(kRows, 4, 5), 0)) + kEnd),
                IMG_ERR_CORRUPT, 2},
        Damaged{"ColorNotInThePalette",
                kSignature + kPalette + chunk("IDAT", packed(std::string("\0\xa0", 2), 9)) + kEnd,
                IMG_ERR_CORRUPT, 0},
        Damaged{"LastColorOfThePalette", kSignature + kPalette + kOneLine, IMG_ERR_READ, 1},
        Damaged{"NoPalette", kSignature + header(2, 1, 2, 3) + kOneLine, IMG_ERR_CORRUPT, -1},
        Damaged{"EndsBeforeThePixels", grey(""), IMG_ERR_READ, -1},
        Damaged{"UnknownChunk", grey(chunk("ABCD", "")), IMG_ERR_SUBTYPE, -1},
        Damaged{"UnknownOptionalChunk",
                grey(with_byte(chunk("abCD", ""), 1, 1) + chunk("IDAT", kStored)), IMG_ERR_READ, 4},
        Damaged{"NoWidth", kSignature + header(0, 4, 8, 2), IMG_ERR_CORRUPT, -1},
        Damaged{"WiderThanTheFileHolds", kSignature + header(0x7fffffff, 1, 16, 6, 1) + kOneLine,
                IMG_ERR_READ, 0},
        Damaged{"HigherThanTheFileHolds", kSignature + header(1, 0x7fffffff, 8, 2, 1) + kOneLine,
                IMG_ERR_CORRUPT, 0}),
    test::row_name<Damaged>);

// Lines are uncompressed one by one, those of an interlaced picture in seven places at once.
TEST(Png, PicturesBeyondTheBoundOfMemoryAreRead) {
  constexpr int width = 3000, height = 2904;
  for (const std::size_t interlaced : {0U, 1U}) {
    constexpr std::size_t filters[] = {height, height / 8 * 15};  // bytes of them
    std::string rows(filters[interlaced] + std::size_t{8} * width * height, '\0');
    rows[rows.size() - 8] = 7;
    const test::Scratch scratch;
    const std::string name =
        scratch.write("a", kSignature + header(width, height, 16, 6, int(interlaced)) +
                               chunk("IDAT", packed(rows, 6)) + kEnd);
    const test::Image image = test::read_image(name, IMG_TYPE_FILE);
    ASSERT_TRUE(image);
    for (const int y : {0, 1}) {
      EXPECT_EQ(test::plane(image.get(), y, test::kR)[2 * width - 1], y == 0 ? 7 : 0);
    }
  }
}

std::uint32_t profile_of(const std::string& chunks) {
  const test::Scratch scratch;
  test::Handle file;
  EXPECT_TRUE(ka_img_open(file, scratch.write("a", grey(chunks + chunk("IDAT", kStored))).c_str(),
                          IMG_TYPE_FILE));
  return file->profile;
}

TEST(Png, ProfileIsAChecksumOfWhatDescribesColors) {
  const std::string gamma = chunk("gAMA", "abcd");
  EXPECT_EQ(profile_of(chunk("tEXt", "abcd")), 0u);
  EXPECT_EQ(profile_of(gamma), profile_of(gamma + chunk("tEXt", "a")));
  EXPECT_NE(profile_of(gamma), profile_of(gamma + chunk("sRGB", "a")));
  EXPECT_NE(profile_of(gamma), profile_of(chunk("gAMA", "abce")));
}

// The seeds have every kind of samples and filters. The other program complains about no chunk.
TEST(PngPeers, ImageMagickReadsTheSamePixels) {
  if (test::find_program("convert").empty()) GTEST_SKIP() << "ImageMagick is not installed";
  for (const auto& seed : std::filesystem::directory_iterator(LUMORA_CORPUS "/png")) {
    SCOPED_TRACE(seed.path());
    const test::Scratch scratch;
    const test::Image ours = test::read_image(seed.path(), IMG_TYPE_FILE);
    ASSERT_TRUE(ours);
    const std::string type = ours->components == 4 ? "TrueColorAlpha" : "TrueColor";
    test::shell("convert -regard-warnings '" + seed.path().string() + "' -type " + type +
                " -depth " + std::to_string(ours->bits) +
                " -compress none -endian MSB 'tif:" + scratch.path("a.tif") + "'");
    test::expect_equal(ours, test::read_image(scratch.path("a.tif"), ours->type));
  }
}

}  // namespace
