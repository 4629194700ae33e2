// Wavefront RLA images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "pictures.h"

namespace {

using test::be, test::bytes;

constexpr std::size_t kHeaderBytes = 740;

struct Window {
  int left, right, bottom, top;
};
std::string stored(const Window& w) {
  return be(2, w.left) + be(2, w.right) + be(2, w.bottom) + be(2, w.top);
}

struct Header {
  Window active = {0, 1, 0, 1};
  int mattes = 1, bits = 8, matte_bits = bits;
  int colours = 3, storage = 0, matte_type = 0;
  Window window = {0, 9, 0, 9};
  char gamma = '2';
};

std::string padded(std::string text, std::size_t count) {
  text.resize(count);
  return text;
}

std::string header(const Header& h) {
  std::string text = stored(h.window) + stored(h.active) + be(2, 0) + be(2, h.storage) +
                     be(2, h.colours) + be(2, h.mattes) + be(2, 0) + be(2, 0xfffe) + h.gamma;
  return padded(padded(text, 658) + be(2, h.bits) + be(2, h.matte_type) + be(2, h.matte_bits),
                kHeaderBytes);
}

// The packets of a channel behind their length; a line is several of them.
std::string record(std::initializer_list<int> packets) {
  return be(2, int(packets.size())) + bytes(packets);
}

// Lines behind one another, the bottom one first.
std::string file(const Header& h, const std::vector<std::string>& lines) {
  std::string table, records;
  for (const std::string& line : lines) {
    table += be(4, std::int64_t(kHeaderBytes + 4 * lines.size() + records.size()));
    records += line;
  }
  return header(h) + table + records;
}

const Header kTwoByTwo;

// A line of two pixels without matte, whose red packets are the given ones.
std::string two_pixels(std::initializer_list<int> red) {
  return file({.active = {0, 1, 0, 0}, .mattes = 0},
              {record(red) + record({1, 7}) + record({1, 8})});
}

constexpr int kRla = IMG_FORMAT_RLA, kRgba = IMG_TYPE_RGBA, kDeep = IMG_TYPE_RGBA_16;
// of two lines, the lower one with literals and the other one with runs
const std::string kLower =
    record({0xfe, 1, 2}) + record({0xfe, 3, 4}) + record({0xfe, 5, 6}) + record({0xfe, 7, 8});
const std::string kUpper = record({1, 9}) + record({1, 10}) + record({1, 11}) + record({1, 12});
const auto kLowerBytes = std::int64_t(kLower.size()), kUpperBytes = std::int64_t(kUpper.size());
const test::Lines kTwoLines = {{{1, 2}, {3, 4}, {5, 6}, {7, 8}},
                               {{9, 9}, {10, 10}, {11, 11}, {12, 12}}};

test::Picture rla(const char* name, const std::string& file, int type, const test::Lines& lines) {
  return {name, file, kRla, type, lines};
}
std::string one_pixel(int bits, std::initializer_list<int> red) {
  return file({.active = {0, 0, 0, 0}, .mattes = 0, .bits = bits},
              {record(red) + record({0, 1}) + record({0, 2})});
}

const std::vector<test::Picture> kPictures = {
    rla("Matte", file(kTwoByTwo, {kLower, kUpper}), kRgba, kTwoLines),
    rla("TopLineFirstInTheFile",
        header(kTwoByTwo) + be(4, 748 + kUpperBytes) + be(4, 748) + kUpper + kLower, kRgba,
        kTwoLines),
    rla("ActiveWindowTellsTheSize",
        file({.active = {-3, -2, 7, 8}, .window = {1, 4096, 0, 2}}, {kLower, kUpper}), kRgba,
        kTwoLines),
    rla("NoMatte", two_pixels({0, 1, 0, 2}), kRgba, {{{1, 2}, {7, 7}, {8, 8}, {255, 255}}}),
    rla("BitsBelowEight", one_pixel(5, {0, 31}), kRgba, {{{31}, {1}, {2}, {255}}}),
    rla("BitsThatAreNotTold", one_pixel(0, {0, 200}), kRgba, {{{200}, {1}, {2}, {255}}}),
    // the high bytes of the row, then the low ones; packets may go on from the ones to the others
    rla("SixteenBits",
        file({.active = {0, 1, 0, 0}, .bits = 16},
             {record({0xfc, 1, 2, 3, 4}) + record({3, 5}) + record({0, 6, 2, 7}) +
              record({0xfd, 8, 9, 10, 0, 11})}),
        kDeep, {{{0x103, 0x204}, {0x505, 0x505}, {0x607, 0x707}, {0x80a, 0x90b}}}),
    rla("TenBitsWithoutMatte",
        file({.active = {0, 0, 0, 0}, .mattes = 0, .bits = 10},
             {record({0xfe, 1, 2}) + record({0xfe, 3, 255}) + record({1, 0})}),
        kDeep, {{{0x102}, {0x3ff}, {0}, {0xffff}}}),
};
TEST(Rla, PicturesAreRead) { test::expect_pictures(kPictures); }

// Of the file's last line, whose second packets are given.
std::string second_line(const std::string& red) { return file(kTwoByTwo, {kLower, red + kUpper}); }
test::Refusal refused(const char* name, Header h, int error) {
  return {name, file(h, {kLower, kUpper}), error};
}

const std::vector<test::Refusal> kRefusals = {
    refused("WindowTooWide", {.window = {0, 4097, 0, 9}}, IMG_ERR_FORMAT),
    refused("WindowOfOneColumn", {.window = {4, 4, 0, 9}}, IMG_ERR_FORMAT),
    refused("FourColours", {.colours = 4}, IMG_ERR_FORMAT),
    refused("TwoMattes", {.mattes = 2}, IMG_ERR_FORMAT),
    refused("GammaIsNoNumber", {.gamma = ':'}, IMG_ERR_FORMAT),
    refused("TwoColours", {.colours = 2}, IMG_ERR_SUBTYPE),
    refused("Floats", {.bits = 32}, IMG_ERR_SUBTYPE),
    refused("MatteOfOtherBits", {.matte_bits = 16}, IMG_ERR_SUBTYPE),
    refused("OtherMatte", {.matte_type = 1}, IMG_ERR_SUBTYPE),
    refused("NoColumn", {.active = {1, 0, 0, 1}}, IMG_ERR_SUBTYPE),
    {"HeaderEnds", header(kTwoByTwo).substr(0, 739), IMG_ERR_READ},
    {"TableOfMoreLinesThanTheFileHas", header({.active = {0, 1, -32768, 32767}}), IMG_ERR_READ},
    {"OffsetInsideTheHeader", header(kTwoByTwo) + be(4, 748) + be(4, 739) + kLower,
     IMG_ERR_CORRUPT},
    {"OffsetBehindTheFile", header(kTwoByTwo) + be(4, 748) + be(4, 748 + kLowerBytes) + kLower,
     IMG_ERR_CORRUPT},
    {"OneSampleTooFew", two_pixels({0, 1}), IMG_ERR_CORRUPT, 0},
    {"OneSampleTooMany", two_pixels({2, 1}), IMG_ERR_CORRUPT, 0},
    {"NegativeLength", second_line(be(2, -2)), IMG_ERR_CORRUPT, 1},
    {"FileEndsInARecord", second_line("").substr(0, 748 + kLower.size() + 3), IMG_ERR_READ, 1},
    {"RowOfLowBytesIsMissing",
     file({.active = {0, 1, 0, 0}, .bits = 16}, {record({1, 1}) + record({3, 1})}), IMG_ERR_CORRUPT,
     0},
    {"NoLineBehindTheLast", two_pixels({1, 1}), IMG_ERR_READ, 1},
};
TEST(Rla, RefusalsAreTold) { test::expect_refusals(kRefusals); }

constexpr std::size_t kDate = 528, kDateBytes = 19;

std::string expected_header(int width, int height, const std::string& gamma,
                            const std::string& aspect, const std::string& name,
                            const std::string& user) {
  char host[64] = {};
  EXPECT_EQ(gethostname(host, sizeof host - 1), 0);
  const std::string window = stored({0, width - 1, 0, height - 1});
  return window + window + be(2, 0) + be(2, 0) + be(2, 3) + be(2, 1) + be(2, 0) + be(2, 0xfffe) +
         padded(gamma, 16) + padded("0.6700 0.3300", 24) + padded("0.2100 0.7100", 24) +
         padded("0.1400 0.0800", 24) + padded("0.3100 0.3160", 24) + be(4, 0) + padded(name, 128) +
         padded("picture", 128) + padded("Brannock", 64) +
         padded(std::string(host).substr(0, 31), 32) + padded(user, 32) + padded("", 20) +
         padded("pal_768", 24) + padded(aspect, 8) + padded("rgb", 32) + padded("", 46) + be(2, 8) +
         be(2, 0) + be(2, 8) + padded("", 76);
}

TEST(Rla, WritesTheseBytes) {
  setenv("USER", "somebody whose name has more than 31 characters", 1);
  const test::Scratch scratch;
  const std::string name(130, 'n');
  const test::Image image =
      test::make_picture(kRgba, 5,
                         {{{1, 1, 1, 2, 2}, {3, 3, 4, 4, 4}, {5, 6, 7, 8, 9}, {0, 0, 0, 0, 0}},
                          {{1, 2, 2, 2, 1}, {0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}}});
  ASSERT_EQ(test::write_image(scratch.path(name), kRla, image.get()), IMG_ERR_NONE);
  std::string written = test::read_file(scratch.path(name));
  EXPECT_TRUE(test::matches(written.substr(kDate, kDateBytes),
                            "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8}"));
  written.replace(kDate, kDateBytes, kDateBytes, '\0');
  const std::string black = record({4, 0});
  const std::string lower = record({2, 1, 0xfe, 2, 2}) + record({0xfe, 3, 3, 2, 4}) +
                            record({0xfb, 5, 6, 7, 8, 9}) + black;
  EXPECT_EQ(written, expected_header(5, 2, "1.000000", "1.00000", name.substr(0, 127),
                                     "somebody whose name has more th") +
                         be(4, 748) + be(4, std::int64_t(748 + lower.size())) + lower +
                         record({0xff, 1, 2, 2, 0xff, 1}) + black + black + black);
}

struct Numbers {
  float gamma, aspect;
  const char *gamma_text, *aspect_text;
};

TEST(Rla, HeaderHasTheseNumbers) {
  unsetenv("USER");
  for (const auto& [gamma, aspect, gamma_text, aspect_text] :
       {Numbers{0, 0, "2.200000", "0.00000"},
        {-1, 1.5F, "2.200000", "1.50000"},
        {1.25F, 1234.5F, "1.250000", "1234.50"},
        {NAN, 0.5F, "2.200000", "0.50000"},
        // 2 to the power of 100 is 1267650600228229401496703205376
        {std::ldexp(1.0F, 100), -1, "126765060022822", "-1.0000"}}) {
    test::NewFile out(kRla, kRgba, 2, 1);
    out->gamma = gamma;
    out->aspect = aspect;
    ASSERT_TRUE(out.write_line());
    ASSERT_TRUE(out.close());
    std::string written = out.contents().substr(0, kHeaderBytes);
    written.replace(kDate, kDateBytes, kDateBytes, '\0');
    EXPECT_EQ(written, expected_header(2, 1, gamma_text, aspect_text, "a", ""));
    written = test::written(kRla, kRgba, test::Lines(2, test::flat(2, {1, 2, 3, 4})));
    written.replace(28, 15, std::string(gamma_text).append(15 - std::strlen(gamma_text), '\0'));
    written.replace(572, 7, aspect_text);
    test::OpenFile in(written);
    EXPECT_FLOAT_EQ(in->gamma, std::strtof(gamma_text, nullptr));
    EXPECT_FLOAT_EQ(in->aspect, aspect > 0 ? aspect : 1);
  }
}

// Lines of all lengths, which pass the reader's buffer several times, in both orders of the file.
TEST(Rla, LargeFilesAreReadForwardsAndBackwards) {
  std::mt19937 random(1);
  test::Lines lines(100, test::Planes(4, std::vector<std::uint32_t>(1500)));
  for (std::size_t y = 0; y < 100; ++y) {
    for (auto& plane : lines[y]) {
      for (std::size_t x = 1; x < 1500; ++x) plane[x] = x % (y + 1) ? plane[x - 1] : random() & 255;
    }
  }
  std::string text = test::written(kRla, kRgba, lines);
  test::expect_picture(rla("", text, kRgba, lines));
  for (std::size_t y = 0; y < 50; ++y) {  // the table the other way round
    const std::string entry = text.substr(kHeaderBytes + 4 * y, 4);
    text.replace(kHeaderBytes + 4 * y, 4, text, kHeaderBytes + 4 * (99 - y), 4);
    text.replace(kHeaderBytes + 4 * (99 - y), 4, entry);
  }
  std::ranges::reverse(lines);
  test::expect_picture(rla("", text, kRgba, lines));
}

}  // namespace
