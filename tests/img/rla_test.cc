// Wavefront RLA images: the header that is written, large files.
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
constexpr int kRla = IMG_FORMAT_RLA, kRgba = IMG_TYPE_RGBA;

std::string padded(std::string text, std::size_t count) {
  text.resize(count);
  return text;
}
std::string record(std::initializer_list<int> packets) {
  return be(2, int(packets.size())) + bytes(packets);
}

constexpr std::size_t kDate = 528, kDateBytes = 19;

std::string expected_header(int width, int height, const std::string& gamma,
                            const std::string& aspect, const std::string& name,
                            const std::string& user) {
  char host[64] = {};
  EXPECT_EQ(gethostname(host, sizeof host - 1), 0);
  const std::string window = be(2, 0) + be(2, width - 1) + be(2, 0) + be(2, height - 1);
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
  test::expect_picture({"", text, kRla, kRgba, lines});
  for (std::size_t y = 0; y < 50; ++y) {  // the table the other way round
    const std::string entry = text.substr(kHeaderBytes + 4 * y, 4);
    text.replace(kHeaderBytes + 4 * y, 4, text, kHeaderBytes + 4 * (99 - y), 4);
    text.replace(kHeaderBytes + 4 * (99 - y), 4, entry);
  }
  std::ranges::reverse(lines);
  test::expect_picture({"", text, kRla, kRgba, lines});
}

}  // namespace
