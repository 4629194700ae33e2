// BMP files that the built-in driver refuses.
#include <ka/drivers.h>

#include "pixels.h"

namespace {

using test::little;

struct Header {
  std::uint32_t bytes = 40;
  int width = 2, height = 1, bits = 16;
  std::uint32_t compression = 0, colors = 0;
  std::vector<std::uint32_t> masks{};
  std::uint32_t offset = 0;
};

// A file; of a header of 40 bytes the masks follow it.
std::string bmp(const Header& h, const std::string& rest) {
  std::string file = "BM" + std::string(8, '\0') + little(h.offset, 4) + little(h.bytes, 4);
  const int side = h.bytes == 12 ? 2 : 4;
  file += little(std::uint32_t(h.width), side) + little(std::uint32_t(h.height), side) +
          little(1, 2) + little(std::uint32_t(h.bits), 2);
  if (h.bytes >= 40) file += little(h.compression, 4) + std::string(12, '\0') + little(h.colors, 4);
  if (h.bytes >= 40) file += little(0, 4);
  for (const std::uint32_t mask : h.masks) file += little(mask, 4);
  file.resize(std::max(file.size(), std::size_t{14} + h.bytes), '\0');
  return file + rest;
}

struct Row {
  const char* name;
  Header header;
  std::string rest;
  std::string pixels;
  int error = IMG_ERR_NONE;
};

class Bmp5 : public testing::TestWithParam<Row> {};

TEST_P(Bmp5, GivesThesePixelsOrThisError) {
  const test::Scratch scratch;
  const auto got = test::decode(scratch.write("a", bmp(GetParam().header, GetParam().rest)));
  EXPECT_EQ(got.pixels, GetParam().pixels);
  EXPECT_EQ(got.error, GetParam().error);
  EXPECT_EQ(got.format, got.error == IMG_ERR_SUBTYPE ? int{IMG_FORMAT_BMP} : int{KA_DRIVERS_BMP5});
}

const std::string kColors = test::bytes({1, 2, 3, 0, 4, 5, 6, 0});  // blue, green, red
const Header kPacked = {.width = 3, .height = 2, .bits = 8, .compression = 1, .colors = 2};
const Header kPacked4 = {.width = 5, .bits = 4, .compression = 2, .colors = 2};

INSTANTIATE_TEST_SUITE_P(
    Rows, Bmp5,
    testing::Values(
        // 5 bits: 31 is 255, 1 is 255 / 31 = 8.2, 16 is 131.6
        Row{"FiveBits", {}, test::bytes({0x01, 0x42, 0xff, 0x7f}), "848408ffffff "},
        Row{"FieldsAfterAHeaderOf40",
            {.compression = 3, .masks = {0xf800, 0x7e0, 0x1f}},
            test::bytes({0x20, 0x00, 0x00, 0xf8}),
            "000400ff0000 "},
        Row{"AlphaFieldsAfterAHeaderOf40",
            {.width = 1, .bits = 32, .compression = 6, .masks = {0xff, 0xff00, 0xff0000, 1U << 31}},
            test::bytes({1, 2, 3, 0x80}),
            "010203ff "},
        // 10 bits: 1023 is 255, 512 is 127.6
        Row{"WideFields",
            {.bytes = 56,
             .width = 1,
             .bits = 32,
             .compression = 3,
             .masks = {0x3ff00000, 0xffc00, 0x3ff, 0}},
            test::bytes({0, 0xfe, 0x0f, 0x20}),
            "80ff80 "},
        Row{"TopLineFirst",
            {.width = 1, .height = -2, .bits = 32},
            test::bytes({1, 2, 3, 4, 5, 6, 7, 8}),
            "03020104 07060508 "},
        Row{"NoAlphaIn32BitsWithoutItsMask",
            {.bytes = 108, .width = 1, .bits = 32},
            "abcd",
            "636261 "},
        Row{"Os2HeaderOf16",
            {.bytes = 16, .width = 1, .bits = 24},
            test::bytes({1, 2, 3, 0}),
            "030201 "},
        Row{"RepeatsLiteralsAndTheEnd", kPacked,
            kColors + test::bytes({2, 1, 1, 0, 0, 0, 0, 3, 1, 0, 1, 0, 0, 1}),
            "060504060504030201 060504030201060504 "},
        Row{"JumpsLeaveTheFirstColor", kPacked, kColors + test::bytes({0, 2, 1, 1, 1, 1, 0, 1}),
            "030201030201030201 030201060504030201 "},
        Row{"FourBitsInTurn", kPacked4, kColors + test::bytes({3, 0x10, 0, 2, 1, 0, 1, 0x10, 0, 1}),
            "060504030201060504030201060504 "},
        Row{"FourBitsThatAreLiteral", kPacked4,
            kColors + test::bytes({0, 3, 0x10, 0x10, 2, 0x01, 0, 1}),
            "060504030201060504030201060504 "},
        Row{"PacketPastTheLine", kPacked, kColors + test::bytes({3, 1, 0, 0, 5, 1}),
            "060504060504060504 ", IMG_ERR_CORRUPT},
        Row{"LiteralsPastTheLine", kPacked, kColors + test::bytes({0, 5, 1, 1, 1, 1, 1, 1}), "",
            IMG_ERR_CORRUPT},
        Row{"JumpPastTheLine", kPacked, kColors + test::bytes({0, 2, 5, 0}), "", IMG_ERR_CORRUPT},
        Row{"PacketsThatEnd", kPacked, kColors + test::bytes({3, 1, 0, 0, 3}),
            "060504060504060504 ", IMG_ERR_READ},
        Row{"IndexOutsideThePalette", kPacked, kColors + test::bytes({3, 2}), "", IMG_ERR_CORRUPT},
        Row{"FieldWithHoles", {.compression = 3, .masks = {5, 0, 0}}, "abcd", "", IMG_ERR_SUBTYPE},
        Row{"Jpeg", {.bits = 24, .compression = 4}, "abcd", "", IMG_ERR_SUBTYPE},
        Row{"PacketsTopLineFirst",
            {.height = -1, .bits = 8, .compression = 1},
            "",
            "",
            IMG_ERR_SUBTYPE},
        Row{"WiderThanTheFile", {.width = 1 << 30}, "abcd", "", IMG_ERR_SUBTYPE},
        Row{"HeaderThatEnds", {.compression = 3}, "", "", IMG_ERR_SUBTYPE}),
    test::row_name<Row>);

TEST(Bmp5, FilesOfTheBuiltInDriverStayItsOwn) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", bmp({.width = 1, .bits = 24}, "abcd"));
  EXPECT_EQ(test::decode(path).format, IMG_FORMAT_BMP);
}

}  // namespace
